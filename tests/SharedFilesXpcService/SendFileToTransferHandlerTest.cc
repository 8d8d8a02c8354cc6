// The send pass against the reference server on loopback, with real files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "Platform/UserDefaults.h"
#include "ReferenceServer.h"
#include "Services/DataParser.h"
#include "SharedFilesXpcService/SendFileToTransferHandler.h"
#include "SharedFilesXpcService/SharedFilesList.h"
#include "support/FixedReachability.h"
#include "support/LogCapture.h"
#include "support/ScopedEnvironment.h"
#include "support/SentHeaders.h"
#include "support/Sha256.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

constexpr const char* kCheck = "MAC/SharedFiles.svc/CheckFileExistsInTransfers";
constexpr const char* kToComputer = "MAC/SharedFiles.svc/UpdateSendFileToTransfer";
constexpr const char* kToCloud = "MAC/SharedFiles.svc/UploadFileWithStream";
constexpr const char* kExists = "MAC/SharedFiles.svc/UpdateFileExists";
constexpr const char* kSendReceived = "MAC/SharedFiles.svc/UpdateFileSendReceived";

class CountingDelegate : public SendFileToTransferDelegate {
 public:
  void SendFileNotify() override { ++notified; }
  std::atomic<int> notified{0};
};

// A record of the server's pending work, as the pass reads it.
FileToTransfer record(const json& fields) {
  return DataParser::parseGetSharedFilesTransferDataResponseData(
             {{"FileToTransfer", json::array({fields})}})
      .fileToTransferArray.at(0);
}

json aFile(const std::string& transfer, const std::string& owner, const std::string& toCloud) {
  return {{"ChangeType", "1"},
          {"IsFile", "True"},
          {"IsOwnerToSubscriber", "0"},
          {"OwnerFileID", owner},
          {"ToCloud", toCloud},
          {"FromComputerID", "C1"},
          {"ToComputerID", "C2"},
          {"SharedFileTransferID", transfer},
          {"FullPathfromFileTable", "Docs\\report.bin"},
          {"FullPath", "\\C1\\Docs\\report.bin"},
          {"NewFullPath", ""},
          {"TallowboxPath", "/Users/ann"}};
}

class SendFileToTransferHandlerTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  SentHeaders wire{environment};
  void SetUp() override {
    server.start();
    environment.update([&](Environment& e) {
      e.baseURL = server.baseURL();
      e.configFolder = folder.file("config");
    });
    handler->setDelegate(delegate);
  }

  // A file of `size` bytes that differ from one another, listed under `owner` in
  // the service's own shared-files list.
  std::string sharedFile(const std::string& owner, std::size_t size) {
    std::string path = folder.file(owner + ".bin");
    std::ofstream out(path, std::ios::binary);
    for (std::size_t i = 0; i < size; ++i) out.put(static_cast<char>((i * 7 + i / 251) & 0xFF));
    Value::Array list = SharedFilesList::load(UserDefaults::standardUserDefaults());
    list.emplace_back(Value::Dictionary{{"OwnerFileID", Value(owner)}, {"FileName", Value(path)}});
    SharedFilesList::store(UserDefaults::standardUserDefaults(), list);
    return path;
  }
  std::string bytesOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  // Waits for the notifications; the bound only ends a test that would hang.
  bool notifiedAtLeast(int count) {
    return waitUntil([&] { return delegate->notified >= count; }, std::chrono::seconds(60));
  }
  json stored(const std::string& kind, const std::string& name) {
    return server.state().snapshot()[kind][name];
  }

  std::shared_ptr<FixedReachability> network = FixedReachability::install(0x2);
  TemporaryFolder folder;
  ReferenceServer server;
  std::shared_ptr<CountingDelegate> delegate = std::make_shared<CountingDelegate>();
  std::shared_ptr<SendFileToTransferHandler> handler =
      std::make_shared<SendFileToTransferHandler>();
};

}  // namespace

TEST_F(SendFileToTransferHandlerTest, ComputerTransferCutMidwayResumesAtTheServersPosition) {
  const std::string path = sharedFile("F1", 300000);
  server.state().merge({{"faults", {{"cutUploadAfter", 120000}}}});
  handler->FileToTransferMethod({record(aFile("T1", "F1", "0"))});
  ASSERT_TRUE(notifiedAtLeast(1)) << "the cut upload ends its record";
  EXPECT_EQ(stored("transfers", "T1")["length"], 120000);
  EXPECT_EQ(json::parse(server.requestsFor(kCheck).at(0).body),
            json({{"SharedFileTransferID", "T1"}, {"FullPathfromFileTable", "Docs\\report.bin"}}));

  const int before = delegate->notified;
  handler->FileToTransferMethod({record(aFile("T1", "F1", "0"))});
  ASSERT_TRUE(notifiedAtLeast(before + 2)) << "the answer and the completion both notify";
  EXPECT_EQ(json::parse(server.requestsFor(kCheck).at(1).body)["SharedFileTransferID"], "T1");
  EXPECT_EQ(handler->bytePos(), WireValue("120000"));

  ASSERT_EQ(server.requestsFor(kToComputer).size(), 2U);
  const ReferenceServer::Request upload = server.requestsFor(kToComputer)[1];
  std::vector<std::pair<std::string, std::string>> headers;
  for (const auto& header : wire.of(kToComputer, 1)) {
    if (header.first != "Host" && header.first != "Accept" && header.first != "Transfer-Encoding") {
      headers.push_back(header);
    }
  }
  EXPECT_EQ(headers, (std::vector<std::pair<std::string, std::string>>{
                         {"Content-Type", "application/octet-stream"},
                         {"ChangeType", "1"},
                         {"SharedFileTransferID", "T1"},
                         {"FullPathFromFileTable", "Docs\\report.bin"},
                         {"ToCloud", "0"},
                         {"IsFile", "True"},
                         {"ToComputerID", "C2"},
                         {"NewFullPath", ""},
                         {"OwnerFileID", "F1"},
                         {"FromComputerID", "C1"},
                         {"TallowboxPath", "/Users/ann"},
                         {"FileNameToSend", "\\C1\\Docs\\report.bin"},
                         {"Length", "300000"}}))
      << "the whole file's length, though the body starts at 120000";
  EXPECT_EQ(upload.header("Transfer-Encoding"), "chunked");
  EXPECT_EQ(upload.header("Content-Length"), "");
  EXPECT_EQ(upload.body, bytesOf(path).substr(120000));
}

TEST_F(SendFileToTransferHandlerTest, CloudUploadStartsAtZeroAndIsFollowedByBothReports) {
  const std::string path = sharedFile("F2", 70000);
  LogCapture log;
  json cloud = aFile("T2", "F2", "1");
  cloud["ToComputerID"] = "C1";  // its own copy: "ComputerID" names the sender
  handler->FileToTransferMethod({record(cloud)});
  ASSERT_TRUE(notifiedAtLeast(2)) << "a good answer notifies, and so does the completion";
  EXPECT_EQ(handler->userType(), std::optional<std::string>("Cloud"));
  EXPECT_TRUE(server.requestsFor(kCheck).empty()) << "the cloud never asks for a position";
  ASSERT_TRUE(waitUntil([&] {
    return server.requestsFor(kSendReceived).size() == 1 && server.requestsFor(kExists).size() == 1;
  })) << "both follow-ups, which go at once and may arrive in either order";
  // Both are sent at once; the log says in which order they were made.
  std::vector<std::string> lines = log.lines();
  auto made = [&](const std::string& prefix) {
    return std::find_if(lines.begin(), lines.end(),
                        [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
  };
  EXPECT_LT(made("data from updatefileexist."), made("data from updatefilesendreceived."));
  EXPECT_EQ(json::parse(server.requestsFor(kExists)[0].body),
            json({{"SharedFileTransferID", "T2"}}));

  const ReferenceServer::Request upload = server.requestsFor(kToCloud).at(0);
  std::vector<std::string> names;
  for (const auto& [name, value] : wire.of(kToCloud)) {
    if (name != "Host" && name != "Accept" && name != "Transfer-Encoding") names.push_back(name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"Content-Type", "ComputerID", "FullPathFromFileTable",
                                             "TallowboxPath", "SharedFileTransferID"}));
  EXPECT_EQ(upload.header("ComputerID"), "C1");
  EXPECT_EQ(upload.header("FullPathFromFileTable"), "\\C1\\Docs\\report.bin")
      << "the cloud request carries the full path under this name";
  EXPECT_EQ(upload.body, bytesOf(path));
  EXPECT_EQ(stored("cloud", "\\C1\\C1\\Docs\\report.bin")["length"], 70000);

  // Another receiver: "ComputerID" names it.
  handler->FileToTransferMethod({record(aFile("T3", "F2", "1"))});
  ASSERT_TRUE(waitUntil([&] { return server.requestsFor(kToCloud).size() == 2; }));
  EXPECT_EQ(server.requestsFor(kToCloud)[1].header("ComputerID"), "C2");
  ASSERT_TRUE(notifiedAtLeast(4));
  ASSERT_TRUE(waitUntil([&] {
    return server.requestsFor(kSendReceived).size() == 2 && server.requestsFor(kExists).size() == 2;
  }));

  // On hosts of AppKit 1138 to 1342 the upload goes on a connection: the answer
  // notifies once, and no follow-up is made.
  environment.update([](Environment& e) { e.appKitVersionNumber = 1200; });
  server.clearRequests();
  handler->FileToTransferMethod({record(aFile("T14", "F2", "1"))});
  ASSERT_TRUE(notifiedAtLeast(5));
  ASSERT_EQ(server.requestsFor(kToCloud).size(), 1U);
  EXPECT_EQ(server.requestsFor(kToCloud)[0].body, bytesOf(path));
  // The completion of a later session upload shows what the connection left out.
  environment.update([](Environment& e) { e.appKitVersionNumber = std::nullopt; });
  handler->FileToTransferMethod({record(aFile("T15", "F2", "1"))});
  ASSERT_TRUE(waitUntil([&] { return server.requestsFor(kSendReceived).size() == 1; }));
  EXPECT_EQ(json::parse(server.requestsFor(kSendReceived)[0].body)["SharedFileTransferID"], "T15");
  EXPECT_TRUE(waitUntil([&] { return server.requestsFor(kExists).size() == 1; }));
  ASSERT_TRUE(notifiedAtLeast(7));

  // Without a network the cloud upload goes on with no request, and tells nobody.
  network = FixedReachability::install(0);
  const int before = delegate->notified;
  handler->FileToTransferMethod({record(aFile("T16", "F2", "1"))});
  EXPECT_TRUE(log.contains("connection not available......."));
  EXPECT_TRUE(log.contains("request in async task is(null)"));
  EXPECT_EQ(delegate->notified, before);
  EXPECT_EQ(server.requestsFor(kToCloud).size(), 2U);
}

TEST_F(SendFileToTransferHandlerTest, RecordsThatEndWithoutAnUploadNotifyAsTheirRulesSay) {
  LogCapture log;
  // No content, its own copy in the cloud: reported sent and received.
  json bare = aFile("T4", "F4", "1");
  bare["IsFile"] = "False";
  bare["ToComputerID"] = "C1";
  handler->FileToTransferMethod({record(bare)});
  EXPECT_EQ(delegate->notified, 1);
  ASSERT_TRUE(waitUntil([&] { return server.requestsFor(kSendReceived).size() == 1; }));

  // No content, another computer: only notified.
  bare["ToComputerID"] = "C2";
  bare["ChangeType"] = "2";
  bare["IsFile"] = "True";
  handler->FileToTransferMethod({record(bare)});
  EXPECT_EQ(delegate->notified, 2);

  // Nowhere on this computer: the position is asked, then nothing is sent.
  handler->FileToTransferMethod({record(aFile("T5", "unknown", "0"))});
  ASSERT_TRUE(notifiedAtLeast(3));
  EXPECT_EQ(server.requestsFor(kCheck).size(), 1U);

  // Listed but gone from disk, or a FIFO there: sent with "Length" "0" and no body.
  const std::string gone = sharedFile("F6", 10);
  fs::remove(gone);
  const std::string pipe = sharedFile("F7", 0);
  fs::remove(pipe);
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  handler->FileToTransferMethod({record(aFile("T6", "F6", "0")), record(aFile("T7", "F7", "0"))});
  ASSERT_TRUE(notifiedAtLeast(7)) << "each upload's answer and completion";
  ASSERT_EQ(server.requestsFor(kToComputer).size(), 2U);
  for (const auto& upload : server.requestsFor(kToComputer)) {
    EXPECT_EQ(upload.header("Length"), "0");
    EXPECT_EQ(upload.body, "");
  }

  // A link: "Length" is the link's own size (its text, "elsewhere.bin"); the body
  // is what it points to.
  const std::string link = sharedFile("F9", 0);
  const std::string elsewhere = sharedFile("elsewhere", 5000);
  fs::remove(link);
  fs::create_symlink("elsewhere.bin", link);
  handler->FileToTransferMethod({record(aFile("T9", "F9", "0"))});
  ASSERT_TRUE(waitUntil([&] { return server.requestsFor(kToComputer).size() == 3U; }));
  EXPECT_EQ(server.requestsFor(kToComputer)[2].header("Length"), "13");
  EXPECT_EQ(server.requestsFor(kToComputer)[2].body, bytesOf(elsewhere));
  ASSERT_TRUE(notifiedAtLeast(9)) << "the upload's answer and completion";

  // A failed position check: notified, nothing sent.
  server.script(kCheck, ReferenceServer::raw("not json", "text/plain"));
  sharedFile("F8", 100);
  handler->FileToTransferMethod({record(aFile("T8", "F8", "0"))});
  ASSERT_TRUE(notifiedAtLeast(10));
  EXPECT_EQ(server.requestsFor(kToComputer).size(), 3U);

  // Nothing to send: nobody is told.
  handler->FileToTransferMethod({});
  EXPECT_EQ(delegate->notified, 10);
}

TEST_F(SendFileToTransferHandlerTest, BadValuesEndTheRecordOrThePassAndNeverTheProcess) {
  LogCapture log;
  // A value no header can hold: on the way to the cloud, set in the pass, it ends
  // the pass under its guard, reported once, and the records after it wait.
  sharedFile("F9", 10);
  json broken = aFile("T9", "F9", "1");
  broken["TallowboxPath"] = {{"not", "a path"}};
  json never = aFile("T10", "F9", "0");
  handler->FileToTransferMethod({record(broken), record(never)});
  EXPECT_EQ(delegate->notified, 1) << "one notification for the whole pass";
  EXPECT_TRUE(log.containsPrefix("Send File To Transfer Exception "));
  ASSERT_TRUE(waitUntil([&] { return !server.requestsFor("MAC/ErrorLog.svc/LogError").empty(); }));
  EXPECT_EQ(json::parse(server.requestsFor("MAC/ErrorLog.svc/LogError")[0].body)["ErrorMethod"],
            "FileToTransferMethod");
  EXPECT_TRUE(server.requestsFor(kCheck).empty()) << "the records after it wait for the next pass";

  // To another computer, set in the position's answer, it ends that record alone.
  for (const json& value : {json(nullptr), json("a\r\nX-Evil: 1")}) {
    json odd = aFile("T11", "F9", "0");
    odd["FullPath"] = value;
    const int before = delegate->notified;
    handler->FileToTransferMethod({record(odd)});
    ASSERT_TRUE(notifiedAtLeast(before + 1)) << value;
    EXPECT_TRUE(server.requestsFor(kToComputer).empty()) << value;
  }
  EXPECT_TRUE(log.containsPrefix("Dropped a reply the send pass cannot read: "));
  json numbered = aFile("T11", "F9", "0");
  numbered["FullPath"] = 7;
  const int sent = delegate->notified;
  handler->FileToTransferMethod({record(numbered)});
  ASSERT_TRUE(notifiedAtLeast(sent + 2)) << "its answer and its completion";
  ASSERT_EQ(server.requestsFor(kToComputer).size(), 1U);
  EXPECT_EQ(server.requestsFor(kToComputer)[0].header("FileNameToSend"), "7") << "a number's text";

  // Positions that are no position: past any end, or unreadable.
  const std::string path = sharedFile("F12", 5000);
  for (const json& position : {json("-5"), json("99999999999999"), json({1, 2})}) {
    server.clearScripts();
    server.script(kCheck,
                  ReferenceServer::json({{"ReturnStatus", "0"}, {"ByteStartPos", position}}));
    server.clearRequests();
    const int before = delegate->notified;
    handler->FileToTransferMethod({record(aFile("T12", "F12", "0"))});
    ASSERT_TRUE(notifiedAtLeast(before + (position.is_array() ? 1 : 2))) << position;
    if (position.is_array()) {
      EXPECT_TRUE(server.requestsFor(kToComputer).empty());
    } else {
      ASSERT_EQ(server.requestsFor(kToComputer).size(), 1U);
      EXPECT_EQ(server.requestsFor(kToComputer)[0].body, "") << position;
      EXPECT_EQ(server.requestsFor(kToComputer)[0].header("Length"), "5000");
    }
  }
  EXPECT_TRUE(log.containsPrefix("Dropped a reply the send pass cannot read: "));

  // Entries that lack the path: nothing is found, nothing is sent.
  Value::Array list = SharedFilesList::load(UserDefaults::standardUserDefaults());
  list.emplace_back(Value::Dictionary{{"OwnerFileID", "F20"}});
  SharedFilesList::store(UserDefaults::standardUserDefaults(), list);
  UserDefaults("Quentara.SyncFilesXpcService")
      .setObject(Value(Value::Array{Value::Dictionary{{"FileIDKey", "F21"}}}),
                 "FileWatchedDataKey");
  json owned = aFile("T21", "F21", "0");
  owned["IsOwnerToSubscriber"] = "1";
  server.clearScripts();
  server.clearRequests();
  int before = delegate->notified;
  handler->FileToTransferMethod({record(aFile("T20", "F20", "0")), record(owned)});
  ASSERT_TRUE(notifiedAtLeast(before + 2));
  EXPECT_EQ(handler->strFileNameToSend(), "");
  EXPECT_TRUE(server.requestsFor(kToComputer).empty());

  // An answer that is not JSON is logged as text; the completion still notifies.
  server.clearScripts();
  server.script(kToComputer, ReferenceServer::raw("<html>busy</html>", "text/html"));
  before = delegate->notified;
  handler->FileToTransferMethod({record(aFile("T13", "F12", "0"))});
  ASSERT_TRUE(notifiedAtLeast(before + 1));
  EXPECT_TRUE(log.waitFor("responseData = <html>busy</html>"));
  EXPECT_EQ(path, handler->strFileNameToSend());

  // Bytes that are not UTF-8 show as no text at all.
  server.clearScripts();
  server.script(kToComputer, ReferenceServer::raw(std::string("\xFF\xFE"
                                                              "busy",
                                                              6),
                                                  "text/plain"));
  before = delegate->notified;
  handler->FileToTransferMethod({record(aFile("T14", "F12", "0"))});
  ASSERT_TRUE(notifiedAtLeast(before + 1));
  EXPECT_TRUE(log.waitFor("responseData = (null)"));
}

TEST_F(SendFileToTransferHandlerTest, TransferBeingSentIsNotSentAgainByAnotherPeerUntilItEnds) {
  LogCapture log;
  const std::string path = sharedFile("F1", 300000);
  server.state().merge({{"faults", {{"holdUploadAnswers", true}}}});
  handler->FileToTransferMethod({record(aFile("T1", "F1", "0"))});
  ASSERT_TRUE(waitUntil([&] { return stored("transfers", "T1")["length"] == 300000; }));

  // Another peer's service object is asked for the same transfer meanwhile.
  auto other = std::make_shared<SendFileToTransferHandler>();
  auto otherDelegate = std::make_shared<CountingDelegate>();
  other->setDelegate(otherDelegate);
  other->FileToTransferMethod({record(aFile("T1", "F1", "0"))});
  ASSERT_TRUE(log.waitFor("Left for a later cycle: transfer T1 is being sent already"));
  EXPECT_TRUE(waitUntil([&] { return otherDelegate->notified == 1; })) << "its record ends";

  server.state().merge({{"faults", {{"holdUploadAnswers", nullptr}}}});
  ASSERT_TRUE(notifiedAtLeast(2)) << "the first upload's answer and completion";
  // Once it has ended, the transfer may be sent again.
  other->FileToTransferMethod({record(aFile("T1", "F1", "0"))});
  ASSERT_TRUE(waitUntil([&] { return otherDelegate->notified >= 3; }));
  EXPECT_EQ(server.requestsFor(kToComputer).size(), 2U);
  EXPECT_EQ(stored("transfers", "T1")["sha256"], sha256Of(path));
}

TEST_F(SendFileToTransferHandlerTest, SharedFilesListThatIsNotAListHoldsUpNoUploadOfAWatchedFile) {
  // A file this computer owns, found through the watcher's list.
  const std::string path = sharedFile("F3", 5000);
  UserDefaults("Quentara.SyncFilesXpcService")
      .setObject(Value(Value::Array{Value::Dictionary{{"FileIDKey", "F3"},
                                                      {"BaseSystemFilePathKey", Value(path)}}}),
                 "FileWatchedDataKey");
  UserDefaults::standardUserDefaults().setObject("not a list", "SharedFileDataKey");
  json owned = aFile("T3", "F3", "0");
  owned["IsOwnerToSubscriber"] = "1";
  handler->FileToTransferMethod({record(owned)});
  ASSERT_TRUE(waitUntil([&] {
    const json transfer = stored("transfers", "T3");
    return transfer.is_object() && transfer.value("length", 0) == 5000;
  })) << "uploaded whole";
  EXPECT_EQ(*UserDefaults::standardUserDefaults().objectForKey("SharedFileDataKey"),
            Value("not a list"))
      << "left as it is";
}
