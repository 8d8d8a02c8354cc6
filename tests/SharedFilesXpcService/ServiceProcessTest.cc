// The service program as it runs for a user: its own process on a private
// session bus, called with dbus-send, talking to the reference server over
// loopback. What it did is read from the server's request log and from the
// preference files it keeps.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "Platform/UserDefaults.h"
#include "ReferenceServer.h"
#include "SharedFilesXpcService/SharedFilesList.h"
#include "support/ChildProcess.h"
#include "support/OpenCounter.h"
#include "support/PrivateBus.h"
#include "support/ScopedEnvironment.h"
#include "support/Sha256.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

using namespace std::chrono_literals;
using nlohmann::json;
namespace fs = std::filesystem;

namespace {

constexpr const char* kQuery = "MAC/SharedFiles.svc/GetSharedFilesTransferData";
constexpr auto kPeriod = 250ms;

class ServiceProcessTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    fs::create_directories(home());
    fs::create_directories(root.path() / "tmp");
    fs::create_directories(root.path() / "config");
    server.start();
    // This process reads and seeds the same preference files as the service.
    environment.update([&](Environment& e) { e.configFolder = root.file("config"); });
    UserDefaults application("Quentara.Tallowbox");
    application.setObject("C1", "computerIdKey");
    application.setObject("U1", "userIdKey");
    application.setObject(Value(home().string()), "tallowboxPathKey");
  }

  void startService() {
    service =
        std::make_unique<ChildProcess>(std::vector<std::string>{SERVICE_PROGRAM, "--log-stderr"},
                                       settings(), root.file("service.log"));
  }
  std::vector<std::string> settings() const {
    return {"DBUS_SESSION_BUS_ADDRESS=" + bus.address(), "TALLOWBOX_BASE_URL=" + server.baseURL(),
            "XDG_CONFIG_HOME=" + root.file("config"), "TMPDIR=" + root.file("tmp"),
            "TALLOWBOX_TEST_CYCLE_PERIOD_MS=250"};
  }
  // Calls SharedFile as the application does, once the service is on the bus.
  void sharedFile() {
    ASSERT_TRUE(waitUntil([&] { return PrivateBus::callSharedFile(settings()); }))
        << "SharedFile was not answered";
  }

  std::size_t queries() const { return server.requestsFor(kQuery).size(); }
  bool queriedAtLeast(std::size_t count) {
    return waitUntil([&] { return queries() >= count; });
  }

  // The service's last log lines, for a failure's message.
  std::string logTail() const {
    std::ifstream in(root.file("service.log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    std::string tail;
    for (std::size_t i = lines.size() > 60 ? lines.size() - 60 : 0; i < lines.size(); ++i) {
      tail += lines[i].substr(0, 300) + "\n";
    }
    return tail;
  }

  // Ann's laptop shares a folder with this computer; returns once its "(Shared)"
  // folder is unblocked.
  void annShares(const json& more = json::object()) {
    json patch = {
        {"computers",
         {{"C1",
           {{"OwnerComputers",
             {{{"NickName", "Ann-Laptop"}, {"Status", "1"}, {"UserComputerMapID", "M1"}}}}}}}}};
    patch.merge_patch(more);
    server.state().merge(patch);
    startService();
    sharedFile();
    ASSERT_TRUE(waitUntil([&] { return blocked(shared()) == "0"; })) << logTail();
  }
  // Lists `entry` for this computer to receive, with the fields every entry from
  // Ann's laptop shares.
  void offer(const json& entry) {
    json file = {{"IsOwnerToSubscriber", "1"}, {"ChangeType", "1"},    {"PrevFolderFileID", "0"},
                 {"UserComputerID", "M1"},     {"IsFile", "True"},     {"FromCloud", "0"},
                 {"FromComputerID", "C9"},     {"ToComputerID", "C1"}, {"SavedFileID", "0"}};
    file.merge_patch(entry);
    server.state().merge({{"computers", {{"C1", {{"RecFileFromTransfer", {file}}}}}}});
  }
  // Lists `entry` and waits for the service to acknowledge it.
  void receive(const json& entry) {
    offer(entry);
    ASSERT_TRUE(waitUntil(
        [&] { return server.state().snapshot()["computers"]["C1"]["RecFileFromTransfer"].empty(); },
        60s))
        << "not acknowledged: " << entry.dump() << "\n"
        << logTail();
  }
  // The list as text, for a failure's message.
  static std::string listing() {
    std::string text;
    for (const Value& entry : list()) {
      for (const auto& [key, value] : *entry.dictionary()) {
        text += key + "=" + (value.string() != nullptr ? *value.string() : "?") + " ";
      }
      text += "\n";
    }
    return text;
  }
  // Whether the list entry for `path` has the file number `path` has on disk.
  static bool numbered(const fs::path& path) {
    std::optional<Value> entry = entryNamed(path);
    struct stat attributes {};
    return entry && ::lstat(path.c_str(), &attributes) == 0 &&
           entry->objectForKey("FileID") != nullptr &&
           *entry->objectForKey("FileID") == Value(std::to_string(attributes.st_ino));
  }
  // Whether `path` holds `size` bytes of the server's pattern for made files.
  static bool holdsPattern(const fs::path& path, std::size_t size) {
    std::ifstream in(path, std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(in), {});
    bool same = bytes.size() == size;
    for (std::size_t i = 0; same && i < bytes.size(); ++i) {
      same = bytes[i] == static_cast<char>((i * 7 + i / 4093) & 0xFF);
    }
    return same;
  }
  bool nothingLeftInTemp() const {
    for (const auto& item :
         fs::recursive_directory_iterator(root.path() / "tmp" / "TallowboxTemp")) {
      if (item.is_regular_file()) return false;
    }
    return true;
  }

  fs::path shared() const { return product() / "Ann-Laptop (Shared)"; }
  fs::path home() const { return root.path() / "home"; }
  fs::path product() const { return home() / "Tallowbox"; }
  static Value::Array list() { return SharedFilesList::load(UserDefaults::standardUserDefaults()); }
  // The entry named `fileName`, or nullopt.
  static std::optional<Value> entryNamed(const fs::path& fileName) {
    for (const Value& entry : list()) {
      const Value* name = entry.objectForKey("FileName");
      if (name != nullptr && name->string() != nullptr && *name->string() == fileName.string()) {
        return entry;
      }
    }
    return std::nullopt;
  }
  // The "Blocked" mark of the entry named `fileName`, or "<none>".
  static std::string blocked(const fs::path& fileName) {
    std::optional<Value> entry = entryNamed(fileName);
    const Value* mark = entry ? entry->objectForKey("Blocked") : nullptr;
    return mark != nullptr && mark->string() != nullptr ? *mark->string() : "<none>";
  }

  TemporaryFolder root;
  PrivateBus bus{root.path().string()};
  ReferenceServer server;
  std::unique_ptr<ChildProcess> service;
};

TEST_F(ServiceProcessTest, IdleServiceQueriesEachPeriodAndUnblocksExactlyTheSharedFolders) {
  const std::string shared = (product() / "Ann-Laptop (Shared)").string();
  server.state().load(R"({"computers": {"C1": {
      "OwnerComputers": [{"NickName": "Ann-Laptop", "UserComputerMapID": "M-Ann", "Status": "1"}],
      "SharedfoldersWithStatus": [{"FileID": "F-Docs", "SharedStatus": "1"},
                                  {"FileID": "F-Photos", "SharedStatus": "0"}]}}})");
  // Two first-level folders received in an earlier session.
  auto child = [](const char* ownerFileId, const std::string& name, const char* mark) {
    return Value(Value::Dictionary{{"OwnerFileID", ownerFileId},
                                   {"UserComputerMapID", "M-Ann"},
                                   {"FileName", Value(name)},
                                   {"Blocked", mark}});
  };
  SharedFilesList::store(
      UserDefaults::standardUserDefaults(),
      {child("F-Docs", shared + "/Docs", "1"), child("F-Photos", shared + "/Photos", "0")});
  // The second reply is held back a second, so the list can be read between
  // the first two cycles; the state answers after that.
  json pending = server.state().snapshot()["computers"]["C1"];
  pending["ReturnStatus"] = "0";
  server.script(kQuery, ReferenceServer::json(pending));
  ReferenceServer::Reply heldBack = ReferenceServer::json(pending);
  heldBack.delay = 1s;
  server.script(kQuery, heldBack);
  startService();
  sharedFile();

  ASSERT_TRUE(queriedAtLeast(2));
  server.clearScripts();
  struct stat attributes {};
  ASSERT_EQ(::lstat(shared.c_str(), &attributes), 0) << "the root folder was made";
  EXPECT_EQ(entryNamed(shared),
            Value(Value::Dictionary{{"OwnerFileID", "0"},
                                    {"UserComputerMapID", "M-Ann"},
                                    {"FileName", Value(shared)},
                                    {"IsFile", "0"},
                                    {"MyFile", "0"},
                                    {"SavedFileID", ""},
                                    {"Blocked", "1"},
                                    {"DeleteKey", "0"},
                                    {"FileID", Value(std::to_string(attributes.st_ino))}}))
      << "a new root entry starts blocked";
  ASSERT_TRUE(waitUntil([&] { return blocked(shared) == "0"; }))
      << "the root entry is unblocked by the next cycle";
  ASSERT_TRUE(waitUntil([&] { return blocked(shared + "/Docs") == "0"; }));
  EXPECT_EQ(blocked(shared + "/Photos"), "1") << "a folder not reported shared stays blocked";
  EXPECT_EQ(list().size(), 3U);

  // Idle from now on: a query every period, each for this user and computer.
  const std::size_t settled = queries();
  ASSERT_TRUE(queriedAtLeast(settled + 6));
  auto seen = server.requestsFor(kQuery);
  for (const auto& request : seen) {
    EXPECT_EQ(json::parse(request.body), json({{"UserID", "U1"}, {"ComputerID", "C1"}}));
  }
  auto first = seen[settled].at;
  auto last = seen.back().at;
  EXPECT_GE((last - first) / (seen.size() - settled - 1), kPeriod * 3 / 5)
      << "one query a period, not more";
  // Each cycle blocks the first level and then unblocks the shared folders, so
  // "Docs" is blocked for a moment between the two stores.
  EXPECT_EQ(blocked(shared), "0");
  EXPECT_EQ(blocked(shared + "/Photos"), "1");
  EXPECT_TRUE(waitUntil([&] { return blocked(shared + "/Docs") == "0"; }));
  EXPECT_EQ(list().size(), 3U);
}

TEST_F(ServiceProcessTest, RefusedReplyStallsUntilSharedFileAndADroppedReplyIsQueriedAgain) {
  server.script(kQuery, ReferenceServer::json({{"ReturnStatus", "1"}}));
  ReferenceServer::Reply dropped = ReferenceServer::json({{"ReturnStatus", "0"}});
  dropped.dropAfter = 5;
  server.script(kQuery, dropped);
  server.script(kQuery, ReferenceServer::json({{"ReturnStatus", "0"}}));
  // Every step of the cycle reads the application's suite afresh.
  OpenCounter steps(UserDefaults::pathOfSuite("Quentara.Tallowbox"));
  startService();
  sharedFile();
  ASSERT_TRUE(queriedAtLeast(1));
  const std::size_t stalledFrom = steps.count();
  ASSERT_TRUE(waitUntil([&] { return steps.count() >= stalledFrom + 6; }));
  EXPECT_EQ(queries(), 1U) << "the timer keeps firing but nothing is queried";

  sharedFile();
  ASSERT_TRUE(queriedAtLeast(2)) << "SharedFile lets the cycle query again";
  ASSERT_TRUE(queriedAtLeast(4)) << "a dropped reply leaves the cycle idle, querying again";
  EXPECT_TRUE(service->running());
}

TEST_F(ServiceProcessTest, MalformedTransferDataNeverEndsTheProcess) {
  const std::vector<json> replies = {
      {{"OwnerComputers", "not a list"}},
      {{"SharedfoldersWithStatus", 7}},
      {{"FileToTransfer", {{"not", "a list"}}}},
      {{"RecFileFromTransfer", {1, 2}}},
      {{"ReturnStatus", {{"not", "a status"}}}},
      {{"OwnerComputers", {{{"UserComputerMapID", "M1"}, {"Status", {{"not", "a status"}}}}}}},
      {{"OwnerComputers", {{{"UserComputerMapID", "M2"}, {"Status", "1"}, {"NickName", 7}}}}},
      {{"OwnerComputers",
        {{{"UserComputerMapID", "M3"}, {"Status", "1"}, {"NickName", "../../escape"}}}}},
      {{"SharedfoldersWithStatus", {{{"FileID", "F1"}, {"SharedStatus", {1, 2}}}}}},
  };
  for (const json& reply : replies) server.script(kQuery, ReferenceServer::json(reply));
  server.script(kQuery, ReferenceServer::raw("{\"ReturnStatus\": \"0\", \"Owner", "text/json"));
  server.script(
      kQuery,
      ReferenceServer::json(
          {{"OwnerComputers",
            {{{"UserComputerMapID", "M4"}, {"Status", "1"}, {"NickName", "Ann-Laptop"}}}}}));
  startService();
  sharedFile();

  ASSERT_TRUE(waitUntil([&] { return blocked(product() / "Ann-Laptop (Shared)") == "1"; }))
      << "the cycle went on to the good reply";
  EXPECT_TRUE(service->running());
  EXPECT_TRUE(fs::is_directory(product() / "Ann-Laptop (Shared)"));
  EXPECT_TRUE(fs::is_directory(product() / "7 (Shared)"));
  EXPECT_FALSE(fs::exists(root.path() / "escape (Shared)"));
  EXPECT_FALSE(fs::exists(home() / "escape (Shared)"));
  EXPECT_EQ(list().size(), 2U);
}

}  // namespace

namespace {

// A file of `size` bytes that differ from one another.
void writeFile(const fs::path& path, std::size_t size) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary);
  for (std::size_t i = 0; i < size; ++i) out.put(static_cast<char>((i * 13 + i / 509) & 0xFF));
}

json sendRecord(const std::string& transfer, const std::string& owner,
                const char* ownerToSubscriber, const char* toCloud) {
  return {{"ChangeType", "1"},
          {"IsFile", "True"},
          {"IsOwnerToSubscriber", ownerToSubscriber},
          {"OwnerFileID", owner},
          {"ToCloud", toCloud},
          {"FromComputerID", "C1"},
          {"ToComputerID", "C2"},
          {"SharedFileTransferID", transfer},
          {"FullPathfromFileTable", "Work\\plan.bin"},
          {"FullPath", "\\C1\\Work\\plan.bin"},
          {"NewFullPath", ""},
          {"TallowboxPath", "/home/ann"}};
}

}  // namespace

TEST_F(ServiceProcessTest, OwnersFileGoesUpThroughTheWatchersListAndResumesWhereTheServerStopped) {
  const fs::path file = home() / "Work" / "plan.bin";
  writeFile(file, 3000000);
  UserDefaults watcher("Quentara.SyncFilesXpcService");
  watcher.setObject(Value(Value::Array{Value::Dictionary{
                        {"FileIDKey", "OF1"}, {"BaseSystemFilePathKey", Value(file.string())}}}),
                    "FileWatchedDataKey");
  server.state().merge(
      {{"computers", {{"C1", {{"FileToTransfer", {sendRecord("T1", "OF1", "1", "0")}}}}}},
       {"faults", {{"cutUploadAfter", 1000000}, {"holdUploadAnswers", true}}}});
  OpenCounter steps(UserDefaults::pathOfSuite("Quentara.Tallowbox"));
  startService();
  sharedFile();
  auto transfer = [&] {
    json state = server.state().snapshot();
    return state.contains("transfers") ? state["transfers"].value("T1", json::object())
                                       : json::object();
  };
  ASSERT_TRUE(waitUntil([&] { return transfer().value("complete", false); }, 60s))
      << "cut at 1,000,000 bytes, asked again, resumed";

  // Its answer is held: the cycle waits for the pass, querying nothing.
  const std::size_t queried = queries();
  const std::size_t from = steps.count();
  ASSERT_TRUE(waitUntil([&] { return steps.count() >= from + 3; }));
  EXPECT_EQ(queries(), queried) << "no query while an upload is in flight";
  server.state().merge({{"faults", {{"holdUploadAnswers", nullptr}}}});
  ASSERT_TRUE(queriedAtLeast(queried + 1)) << "the pass ended; the cycle goes on";

  EXPECT_EQ(transfer()["length"], 3000000);
  EXPECT_EQ(transfer()["sha256"], sha256Of(file.string())) << "byte for byte";
  auto uploads = server.requestsFor("MAC/SharedFiles.svc/UpdateSendFileToTransfer");
  ASSERT_EQ(uploads.size(), 2U);
  EXPECT_EQ(uploads[1].header("Length"), "3000000");
  auto checks = server.requestsFor("MAC/SharedFiles.svc/CheckFileExistsInTransfers");
  ASSERT_EQ(checks.size(), 2U);
  EXPECT_TRUE(service->running());
}

TEST_F(ServiceProcessTest, FileInTheSharedListGoesToTheCloudAndBothReportsFollow) {
  const fs::path file = product() / "Ann-Laptop (Shared)" / "Docs" / "notes.bin";
  writeFile(file, 500000);
  SharedFilesList::store(
      UserDefaults::standardUserDefaults(),
      {Value::Dictionary{
          {"OwnerFileID", "OF2"}, {"FileName", Value(file.string())}, {"Blocked", "0"}}});
  json record = sendRecord("T2", "OF2", "0", "1");
  record["ToComputerID"] = "C1";
  server.state().merge({{"computers", {{"C1", {{"FileToTransfer", {record}}}}}}});
  startService();
  sharedFile();
  // The two reports go at once and may arrive in either order.
  ASSERT_TRUE(waitUntil([&] {
    return !server.requestsFor("MAC/SharedFiles.svc/UpdateFileSendReceived").empty() &&
           !server.requestsFor("MAC/SharedFiles.svc/UpdateFileExists").empty();
  }));
  EXPECT_EQ(server.requestsFor("MAC/SharedFiles.svc/UpdateFileExists").size(), 1U);
  json copy = server.state().snapshot()["cloud"]["\\C1\\C1\\Work\\plan.bin"];
  EXPECT_EQ(copy["sha256"], sha256Of(file.string()));
  const std::size_t queried = queries();
  ASSERT_TRUE(queriedAtLeast(queried + 1));
  EXPECT_TRUE(server.state().snapshot()["computers"]["C1"]["FileToTransfer"].empty())
      << "sent and received: no longer pending";
}

TEST_F(ServiceProcessTest, FileFromAnotherComputerLandsWholeAfterACutInItsOwnersSharedFolder) {
  annShares({{"saved", {{"S1", {{"size", 2000000}}}}}, {"faults", {{"cutDownloadAfter", 700000}}}});
  receive({{"OwnerFileID", "OF9"},
           {"FullPath", "Docs\\a.bin"},
           {"SavedFileID", "S1"},
           {"SharedFileTransferID", "R1"}});
  const fs::path landed = shared() / "a.bin";
  EXPECT_TRUE(holdsPattern(landed, 2000000)) << "byte for byte";

  auto downloads = server.requestsFor("MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer");
  ASSERT_EQ(downloads.size(), 2U) << "cut once, then resumed";
  EXPECT_EQ(json::parse(downloads[0].body)["Length"], "0");
  EXPECT_EQ(json::parse(downloads[1].body)["Length"], "700000");
  EXPECT_EQ(json::parse(downloads[1].body)["SavedFileID"], "S1");
  ASSERT_TRUE(waitUntil([&] { return numbered(landed); })) << logTail();
  EXPECT_EQ(*entryNamed(landed)->objectForKey("OwnerFileID"), Value("OF9"));
  EXPECT_TRUE(nothingLeftInTemp());
  EXPECT_TRUE(service->running());
}

TEST_F(ServiceProcessTest, DownloadKilledMidwayResumesFromItsPartialWhenTheServiceStartsAgain) {
  annShares(
      {{"saved", {{"S1", {{"size", 3000000}}}}}, {"faults", {{"holdDownloadAfter", 1000000}}}});
  offer({{"OwnerFileID", "OF9"},
         {"FullPath", "big.bin"},
         {"SavedFileID", "S1"},
         {"SharedFileTransferID", "R1"}});
  const fs::path partial =
      root.path() / "tmp" / "TallowboxTemp" / "Ann-Laptop (Shared)" / "big.bin";
  ASSERT_TRUE(waitUntil(
      [&] {
        std::error_code error;
        return fs::file_size(partial, error) == 1000000;
      },
      60s))
      << logTail();
  ::kill(service->pid(), SIGKILL);
  ASSERT_EQ(service->wait(), 128 + SIGKILL);
  server.state().merge({{"faults", {{"holdDownloadAfter", nullptr}}}});

  startService();
  sharedFile();
  const fs::path landed = shared() / "big.bin";
  ASSERT_TRUE(waitUntil([&] { return numbered(landed); }, 60s)) << logTail();
  EXPECT_TRUE(holdsPattern(landed, 3000000)) << "byte for byte";
  auto downloads = server.requestsFor("MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer");
  ASSERT_EQ(downloads.size(), 2U);
  EXPECT_EQ(json::parse(downloads[1].body)["Length"], "1000000") << "the partial's size";
  EXPECT_TRUE(nothingLeftInTemp());
}

TEST_F(ServiceProcessTest, OwnersFoldersFilesRenamesAndDeletesAreMirroredIgnoringCase) {
  // An entry of an earlier pass whose name differs from the folder's in case.
  SharedFilesList::store(
      UserDefaults::standardUserDefaults(),
      {Value::Dictionary{{"OwnerFileID", "OF77"},
                         {"FileName", Value((shared() / "DOCS" / "old.txt").string())},
                         {"Blocked", "0"}}});
  // Docs is the folder Ann shares (file numbers are numeric, as the server's are): it stays
  // unblocked while the server says so.
  annShares(
      {{"saved", {{"S2", {{"text", ""}}}, {"S3", {{"text", "hello"}}}}},
       {"computers",
        {{"C1", {{"SharedfoldersWithStatus", {{{"FileID", "10"}, {"SharedStatus", "1"}}}}}}}}});
  const fs::path docs = shared() / "Docs";

  receive({{"OwnerFileID", "10"},
           {"FullPath", "\\Docs"},
           {"IsFile", "False"},
           {"SharedFileTransferID", "R1"}});
  EXPECT_TRUE(fs::is_directory(docs));
  ASSERT_TRUE(waitUntil([&] { return numbered(docs); })) << logTail();

  receive({{"OwnerFileID", "11"},
           {"FullPath", "\\Docs\\empty.txt"},
           {"PrevFolderFileID", "10"},
           {"SavedFileID", "S2"},
           {"SharedFileTransferID", "R2"}});
  ASSERT_TRUE(waitUntil([&] { return numbered(docs / "empty.txt"); })) << listing();
  EXPECT_EQ(fs::file_size(docs / "empty.txt"), 0U) << "a file of no bytes is made";

  receive({{"OwnerFileID", "12"},
           {"FullPath", "\\Docs\\note.txt"},
           {"PrevFolderFileID", "10"},
           {"SavedFileID", "S3"},
           {"SharedFileTransferID", "R3"}});
  ASSERT_TRUE(waitUntil([&] { return numbered(docs / "note.txt"); })) << logTail();
  EXPECT_EQ(fs::file_size(docs / "note.txt"), 5U);

  receive({{"ChangeType", "2"},
           {"OwnerFileID", "11"},
           {"FullPath", "\\Docs\\empty.txt"},
           {"NewFullPath", "\\Docs\\blank.txt"},
           {"SharedFileTransferID", "R4"}});
  EXPECT_FALSE(fs::exists(docs / "empty.txt"));
  EXPECT_TRUE(fs::exists(docs / "blank.txt"));
  EXPECT_TRUE(entryNamed(docs / "blank.txt")) << "the list follows the rename";
  EXPECT_FALSE(entryNamed(docs / "empty.txt"));

  receive({{"ChangeType", "3"},
           {"OwnerFileID", "12"},
           {"FullPath", "\\Docs\\note.txt"},
           {"SharedFileTransferID", "R5"}});
  EXPECT_FALSE(fs::exists(docs / "note.txt"));
  EXPECT_FALSE(entryNamed(docs / "note.txt"));
  EXPECT_TRUE(fs::exists(docs / "blank.txt")) << "only the file named goes";

  receive({{"ChangeType", "3"},
           {"OwnerFileID", "10"},
           {"FullPath", "\\Docs"},
           {"IsFile", "False"},
           {"SharedFileTransferID", "R6"}});
  EXPECT_FALSE(fs::exists(docs));
  EXPECT_TRUE(fs::is_directory(shared())) << "the owner's folder stays";
  for (const Value& entry : list()) {
    const Value* name = entry.objectForKey("FileName");
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(name->string()->find("/Ann-Laptop (Shared)/"), std::string::npos)
        << *name->string() << " outlived its folder";
  }
  EXPECT_TRUE(nothingLeftInTemp());
  EXPECT_TRUE(service->running());
}

TEST_F(ServiceProcessTest, FileFromTheCloudIsFetchedAfterTheCloudSaysItHasIt) {
  annShares({{"cloud", {{"\\C9\\Docs\\c.bin", {{"size", 300000}}}}}});
  receive({{"OwnerFileID", "OF20"},
           {"FullPath", "\\Docs\\c.bin"},
           {"FromCloud", "1"},
           {"SharedFileTransferID", "R7"}});
  const fs::path landed = shared() / "c.bin";
  ASSERT_TRUE(waitUntil([&] { return numbered(landed); })) << logTail();
  EXPECT_TRUE(holdsPattern(landed, 300000)) << "byte for byte";
  auto asked = server.requestsFor("MAC/SharedFiles.svc/IsFileExistsInCloud");
  ASSERT_EQ(asked.size(), 1U);
  EXPECT_EQ(json::parse(asked[0].body)["StrFullPath"], "\\C9\\Docs\\c.bin");
  auto fetched = server.requestsFor("MAC/SharedFiles.svc/GetFileStreamFromCloud");
  ASSERT_EQ(fetched.size(), 1U);
  EXPECT_EQ(json::parse(fetched[0].body)["Length"], "0");
  auto acknowledged = server.requestsFor("MAC/SharedFiles.svc/UpdateFileReceived");
  ASSERT_EQ(acknowledged.size(), 1U);
  EXPECT_EQ(json::parse(acknowledged[0].body)["SharedFileTransferID"], "R7");
  EXPECT_TRUE(nothingLeftInTemp());
}
