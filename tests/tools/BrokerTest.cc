// The reference server as the broker between an owner's computer and its
// subscribers: changes reported for a shared folder become uploads and
// deliveries, the state outlives the server, and bad input is refused.
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "Broker.h"
#include "ReferenceServer.h"
#include "ServerState.h"
#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

using nlohmann::json;

namespace {

constexpr const char* kInsert = "SyncFileChanges.svc/InsertSharedFilesTransfer";
constexpr const char* kQuery = "MAC/SharedFiles.svc/GetSharedFilesTransferData";
constexpr const char* kSend = "MAC/SharedFiles.svc/UpdateSendFileToTransfer";

// Ann's laptop C1 shares its folder "Docs" (file 10) with Ben's C2 and Cid's C3.
constexpr const char* kShares = R"({
  "users": {"U1": {"computers": ["C1"]}, "U2": {"computers": ["C2", "C3"]}},
  "computers": {"C1": {"TallowboxPath": "/home/ann"}},
  "mappings": {"5": {"Owner": "C1", "Subscriber": "C2", "NickName": "Ann-Laptop", "Status": "1"},
               "6": {"Owner": "C1", "Subscriber": "C3", "NickName": "Ann", "Status": "1"}},
  "sharedFolders": {"10": {"Computer": "C1", "SharedStatus": "1"}}})";

std::string contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

class BrokerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    state.openStore(folder.file("store"));
    state.load(kShares);
  }
  json report(const json& change) { return *state.answer(kInsert, change.dump()); }
  // A change of Ann's laptop C1 to its item `id`, with more of its fields.
  json report(const char* id, const char* type, const json& fields) {
    json change = {{"ComputerID", "C1"}, {"FileID", id}, {"ChangeType", type}};
    change.update(fields);
    return report(change);
  }
  json added(const char* id, const std::string& path, const char* parent,
             const char* isFile = "True") {
    return report(id, "1", {{"IsFile", isFile}, {"FullPath", path}, {"PrevFolderFileID", parent}});
  }
  json renamed(const char* id, const char* from, const char* to) {
    return report(id, "2", {{"OldFullPath", from}, {"FullPath", to}});
  }
  json pending(const std::string& computer) {
    const char* user = computer == "C1" ? "U1" : "U2";
    return *state.answer(kQuery, json({{"UserID", user}, {"ComputerID", computer}}).dump());
  }
  json acknowledge(const std::string& operation, const std::string& transfer) {
    return *state.answer("MAC/SharedFiles.svc/" + operation,
                         json({{"SharedFileTransferID", transfer}, {"IsExists", "true"}}).dump());
  }
  // An upload as the send pass makes it: `headers` and the body `bytes`.
  json upload(const char* operation, const std::map<std::string, std::string>& headers,
              const std::string& bytes) {
    return *state.receive(
        operation,
        [&](const std::string& name) {
          auto found = headers.find(name);
          return found == headers.end() ? std::string() : found->second;
        },
        [&](const std::function<bool(const char*, std::size_t)>& sink) {
          return sink(bytes.data(), bytes.size());
        });
  }
  std::string downloaded(const char* operation, const json& body) {
    auto download = state.download(operation, body.dump());
    EXPECT_TRUE(download);
    return download ? contents(download->path).substr(download->offset) : "";
  }

  TemporaryFolder folder;
  ServerState state;
};

const json kOk = {{"ReturnStatus", "0"}};

TEST_F(BrokerTest, ChangesOfASharedFolderReachEverySubscriberInOrderAndCloseOnItsAcknowledgement) {
  json ben = pending("C2");
  EXPECT_EQ(ben["OwnerComputers"], json::parse(R"([{"UserComputerMapID": "5", "ComputerID": "C1",
      "UserID": "U1", "NickName": "Ann-Laptop", "Status": "1"}])"));
  EXPECT_EQ(ben["SharedfoldersWithStatus"],
            json::parse(R"([{"FileID": "10", "SharedStatus": "1"}])"));
  EXPECT_EQ(pending("C1")["OwnerComputers"], json::array()) << "Ann subscribes to nobody";

  EXPECT_EQ(added("10", "Docs", "0", "False"), kOk);
  EXPECT_EQ(added("11", "Docs/a.bin", "10"),
            json({{"ReturnStatus", "0"}, {"SharedFileTransferID", "3"}}));
  EXPECT_EQ(pending("C1")["FileToTransfer"], json::parse(R"([{"SharedFileTransferID": "3",
      "ChangeType": "1", "IsFile": "True", "IsOwnerToSubscriber": "1", "OwnerFileID": "11",
      "PrevFolderFileID": "10", "UserComputerID": "", "FromComputerID": "C1", "ToComputerID": "0",
      "ToCloud": "0", "FromCloud": "0", "FullPath": "\\Docs\\a.bin",
      "FullPathfromFileTable": "\\Docs\\a.bin", "NewFullPath": "", "TallowboxPath": "/home/ann",
      "XMLFileID": ""}])"));
  EXPECT_EQ(pending("C2")["RecFileFromTransfer"], json::parse(R"([{"SharedFileTransferID": "1",
      "ChangeType": "1", "IsFile": "False", "IsOwnerToSubscriber": "1", "OwnerFileID": "10",
      "PrevFolderFileID": "0", "UserComputerID": "5", "FromComputerID": "C1", "ToComputerID": "C2",
      "NickName": "Ann-Laptop", "FullPath": "\\Docs", "FullPathFromFileTable": "\\Docs",
      "NewFullPath": "", "FromCloud": "0", "ToCloud": "0", "SavedFileID": "0",
      "SharedFolderFileID": "10", "XMLFileID": ""}])"))
      << "the folder; the file waits for its upload";

  EXPECT_EQ(*state.answer("MAC/SharedFiles.svc/CheckFileExistsInTransfers",
                          R"({"SharedFileTransferID": "3"})"),
            json({{"ReturnStatus", "0"}, {"ByteStartPos", "0"}}));
  EXPECT_EQ(upload(kSend, {{"SharedFileTransferID", "3"}, {"Length", "11"}}, "hello world"), kOk);
  EXPECT_EQ(pending("C1")["FileToTransfer"], json::array()) << "uploaded whole";
  EXPECT_EQ(pending("C2")["RecFileFromTransfer"][0]["SharedFileTransferID"], "1")
      << "one at a time, in order";
  EXPECT_EQ(acknowledge("UpdateFileReceived", "1"), kOk);

  json file = pending("C2")["RecFileFromTransfer"];
  ASSERT_EQ(file.size(), 1U);
  EXPECT_EQ(file[0], json::parse(R"({"SharedFileTransferID": "4", "ChangeType": "1",
      "IsFile": "True", "IsOwnerToSubscriber": "1", "OwnerFileID": "11", "PrevFolderFileID": "10",
      "UserComputerID": "5", "FromComputerID": "C1", "ToComputerID": "C2", "NickName": "Ann-Laptop",
      "FullPath": "\\Docs\\a.bin", "FullPathFromFileTable": "\\Docs\\a.bin", "NewFullPath": "",
      "FromCloud": "0", "ToCloud": "0", "SavedFileID": "3", "SharedFolderFileID": "10",
      "XMLFileID": ""})"));
  EXPECT_EQ(downloaded("MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer",
                       {{"SavedFileID", "3"}, {"Length", "6"}}),
            "world")
      << "the owner's bytes, from where the receiver stands";
  EXPECT_EQ(acknowledge("DeleteReceivedFileFromTransfer", "4"), kOk);
  EXPECT_EQ(pending("C2")["RecFileFromTransfer"], json::array());
  EXPECT_EQ(pending("C3")["RecFileFromTransfer"][0]["SharedFileTransferID"], "2")
      << "each subscriber has deliveries of its own";

  EXPECT_EQ(renamed("11", "Docs/a.bin", "Docs/b.bin"), kOk);
  json renamed = pending("C2")["RecFileFromTransfer"][0];
  EXPECT_EQ(renamed["ChangeType"], "2");
  EXPECT_EQ(renamed["FullPath"], "\\Docs\\a.bin");
  EXPECT_EQ(renamed["NewFullPath"], "\\Docs\\b.bin");
  EXPECT_EQ(renamed["IsFile"], "True");
  acknowledge("UpdateFileReceived", renamed["SharedFileTransferID"]);

  // The folder goes, and the file inside it from the file table with it.
  EXPECT_EQ(report("10", "3", {{"FullPath", "Docs"}}), kOk);
  EXPECT_EQ(state.document()["files"]["C1"], json::object());
  json deleted = pending("C2")["RecFileFromTransfer"][0];
  EXPECT_EQ(deleted["ChangeType"], "3");
  EXPECT_EQ(deleted["FullPath"], "\\Docs");
  EXPECT_EQ(deleted["IsFile"], "False");

  // Ann turns the share with Ben off: Ben sees it and is sent nothing more.
  state.merge(json::parse(R"({"mappings": {"5": {"Status": "0"}}})"));
  ben = pending("C2");
  EXPECT_EQ(ben["OwnerComputers"][0]["Status"], "0");
  EXPECT_EQ(ben["RecFileFromTransfer"], json::array());
  state.merge(json::parse(R"({"mappings": {"5": {"Status": "1"}},
                              "sharedFolders": {"10": {"SharedStatus": "0"}}})"));
  ben = pending("C2");
  EXPECT_EQ(ben["SharedfoldersWithStatus"],
            json::parse(R"([{"FileID": "10", "SharedStatus": "0"}])"));
  EXPECT_EQ(ben["RecFileFromTransfer"], json::array());
}

TEST_F(BrokerTest, FileRenamedOrDeletedBeforeItsUploadEndsNeverReachesSubscribersOutOfOrder) {
  added("10", "Docs", "0", "False");
  acknowledge("UpdateFileReceived", "1");  // Ben has the folder
  ASSERT_EQ(added("11", "Docs/a.bin", "10")["SharedFileTransferID"], "3");
  ASSERT_EQ(added("12", "Docs/b.bin", "10")["SharedFileTransferID"], "4");

  // a.bin is renamed and b.bin deleted while neither upload has begun.
  EXPECT_EQ(renamed("11", "Docs/a.bin", "Docs/c.bin"), kOk);
  EXPECT_EQ(report("12", "3", {{"FullPath", "Docs/b.bin"}, {"IsFile", "True"}}), kOk);
  EXPECT_EQ(pending("C2")["RecFileFromTransfer"], json::array())
      << "Ben never had them: no rename or delete he could not apply";
  json send = pending("C1")["FileToTransfer"];
  ASSERT_EQ(send.size(), 1U);
  EXPECT_EQ(send[0]["SharedFileTransferID"], "5") << "a.bin asked for again, b.bin not at all";
  EXPECT_EQ(send[0]["OwnerFileID"], "11");
  EXPECT_EQ(send[0]["FullPath"], "\\Docs\\c.bin");

  EXPECT_EQ(upload(kSend, {{"SharedFileTransferID", "5"}, {"Length", "2"}}, "c!"), kOk);
  json arrived = pending("C2")["RecFileFromTransfer"];
  ASSERT_EQ(arrived.size(), 1U);
  EXPECT_EQ(arrived[0]["ChangeType"], "1");
  EXPECT_EQ(arrived[0]["FullPath"], "\\Docs\\c.bin");
  EXPECT_EQ(arrived[0]["SavedFileID"], "5");

  // Once Ben was sent c.bin, its rename follows it.
  renamed("11", "Docs/c.bin", "Docs/d.bin");
  EXPECT_EQ(pending("C2")["RecFileFromTransfer"][0]["SharedFileTransferID"],
            arrived[0]["SharedFileTransferID"]);
  acknowledge("DeleteReceivedFileFromTransfer", arrived[0]["SharedFileTransferID"]);
  json renamed = pending("C2")["RecFileFromTransfer"];
  ASSERT_EQ(renamed.size(), 1U);
  EXPECT_EQ(renamed[0]["ChangeType"], "2");
  EXPECT_EQ(renamed[0]["NewFullPath"], "\\Docs\\d.bin");
}

TEST_F(BrokerTest, UploadItsOwnerNeverMakesHoldsUpNoOtherUpload) {
  for (const char* id : {"11", "12"}) added(id, std::string("Docs/") + id + ".bin", "10");
  // Transfer 1 (11.bin) is never uploaded: the file is gone from Ann's list.
  EXPECT_EQ(pending("C1")["FileToTransfer"][0]["SharedFileTransferID"], "1");
  EXPECT_EQ(pending("C1")["FileToTransfer"][0]["SharedFileTransferID"], "2");
  EXPECT_EQ(pending("C1")["FileToTransfer"][0]["SharedFileTransferID"], "1");
  EXPECT_EQ(upload(kSend, {{"SharedFileTransferID", "2"}, {"Length", "3"}}, "two"), kOk);
  EXPECT_EQ(pending("C2")["RecFileFromTransfer"][0]["OwnerFileID"], "12");
  for (int reply = 0; reply < 3; ++reply) {
    json send = pending("C1")["FileToTransfer"];
    ASSERT_EQ(send.size(), 1U);
    EXPECT_EQ(send[0]["SharedFileTransferID"], "1") << "still asked for";
  }
}

TEST_F(BrokerTest, FileOfACloudFolderGoesUpToTheCloudAndSubscribersFetchItFromThere) {
  state.merge(json::parse(R"({"sharedFolders": {"10": {"ToCloud": "1"}}})"));
  json accepted = added("12", "Docs\\c.bin", "10");
  ASSERT_EQ(accepted["ReturnStatus"], "0");
  json send = pending("C1")["FileToTransfer"][0];
  EXPECT_EQ(send["ToCloud"], "1");
  EXPECT_EQ(send["ToComputerID"], "C1");
  EXPECT_EQ(upload("MAC/SharedFiles.svc/UploadFileWithStream",
                   {{"SharedFileTransferID", accepted["SharedFileTransferID"]},
                    {"ComputerID", "C1"},
                    {"FullPathFromFileTable", "\\Docs\\c.bin"}},
                   "from the cloud"),
            kOk);
  EXPECT_EQ(pending("C1")["FileToTransfer"], json::array());

  json entry = pending("C2")["RecFileFromTransfer"][0];
  EXPECT_EQ(entry["FromCloud"], "1");
  EXPECT_EQ(entry["FromComputerID"], "C1");
  EXPECT_EQ(entry["FullPath"], "\\Docs\\c.bin");
  EXPECT_EQ(*state.answer("MAC/SharedFiles.svc/IsFileExistsInCloud",
                          R"({"StrFullPath": "\\C1\\Docs\\c.bin"})"),
            json({{"ReturnStatus", "0"}, {"IsExists", "True"}}));
  EXPECT_EQ(downloaded("MAC/SharedFiles.svc/GetFileStreamFromCloud",
                       {{"StrFullPath", "\\C1\\Docs\\c.bin"}, {"Length", "0"}}),
            "from the cloud");
  acknowledge("UpdateFileReceived", entry["SharedFileTransferID"]);
  EXPECT_EQ(pending("C2")["RecFileFromTransfer"], json::array());
}

TEST_F(BrokerTest, ChangesAndBodiesOfTheWrongShapeAreRefusedWithAReasonAndChangeNothing) {
  const json inShare = {{"ComputerID", "C1"}, {"FileID", "11"},       {"ChangeType", "1"},
                        {"IsFile", "True"},   {"FullPath", "Docs/x"}, {"PrevFolderFileID", "10"}};
  auto refusedWith = [&](const json& patch) {
    json change = inShare;
    change.merge_patch(patch);
    return report(change);
  };
  auto refusal = [](const char* why) { return json({{"ReturnStatus", "1"}, {"error", why}}); };
  EXPECT_EQ(refusedWith({{"ComputerID", nullptr}}), refusal("ComputerID is missing"));
  EXPECT_EQ(refusedWith({{"FileID", {{"id", 1}}}}), refusal("FileID is text"));
  EXPECT_EQ(refusedWith({{"ChangeType", "4"}}), refusal("ChangeType is 1, 2 or 3"));
  EXPECT_EQ(refusedWith({{"FullPath", "Docs/../../etc"}}),
            refusal("FullPath names an item without \".\" or \"..\""));
  EXPECT_EQ(refusedWith({{"FullPath", "\\/"}}),
            refusal("FullPath names an item without \".\" or \"..\""));
  EXPECT_EQ(refusedWith({{"PrevFolderFileID", "0"}}),
            refusal("FileID 11 is not in a folder that C1 shares"));
  EXPECT_EQ(refusedWith({{"ComputerID", "C2"}}),
            refusal("FileID 11 is not in a folder that C2 shares"));
  EXPECT_EQ(refusedWith({{"ChangeType", 3}}), refusal("FileID 11 of C1 is not in the file table"))
      << "a number is read as its text";
  EXPECT_FALSE(state.document().contains("transfers"));
  EXPECT_FALSE(state.document().contains("deliveries"));

  EXPECT_EQ(*state.answer(kQuery, R"({"ComputerID": ["C1"]})"),
            refusal("ComputerID is missing or not text"));
  EXPECT_EQ(*state.answer("MAC/SharedFiles.svc/UpdateFileReceived", R"({"IsExists": "true"})"),
            refusal("SharedFileTransferID is missing or not text"));
  EXPECT_EQ(*state.answer("MAC/SharedFiles.svc/IsFileExistsInCloud", R"({"StrFullPath": 1.5})"),
            refusal("StrFullPath is missing or not text"));
}

// Over HTTP, as the demo and the other programs reach the server.
class BrokerServerTest : public ::testing::Test {
 protected:
  // A server keeping its state and bytes in this test's folder.
  std::unique_ptr<ReferenceServer> startServer() {
    auto server = std::make_unique<ReferenceServer>();
    server->setStoreFolder(folder.file("store"));
    server->setStateFile(folder.file("state.json"));
    server->start();
    return server;
  }
  static httplib::Result post(const ReferenceServer& server, const std::string& path,
                              const std::string& body) {
    httplib::Client client("127.0.0.1", server.port());
    return client.Post(path, body, "application/json");
  }
  TemporaryFolder folder;
};

TEST_F(BrokerServerTest, AdminChangesOfTheWrongShapeAreRefusedWith400AndChangeNothing) {
  auto server = startServer();
  server->state().load(kShares);
  const json before = server->state().document();
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"[1]", "a state change is a JSON object"},
      {R"({"mappings": []})", "mappings is a JSON object"},
      {R"({"mappings": {"5": {"Owner": 7}}})",
       "mappings/5 has the texts Owner, Subscriber, NickName and Status"},
      {R"({"sharedFolders": {"10": {"SharedStatus": 0}}})",
       "sharedFolders/10 has the texts Computer, SharedStatus and, maybe, ToCloud"},
      {R"({"files": {"C1": {"11": {"Path": "\\a"}}}})",
       "files/C1/11 has the texts Path, IsFile and Parent"},
      {R"({"computers": {"C1": {"FileToTransfer": {}}}})",
       "computers/C1/FileToTransfer is an array"},
      {R"({"nextID": -1})", "nextID is a number of 0 or more"},
      {R"({"errorLog": {}})", "errorLog is an array"},
      {R"({"faults": {"downloadAnswer": {"status": "502"}}})",
       "faults/downloadAnswer has a status of 100 to 599 and, maybe, the texts contentType and "
       "body"},
      {R"({"faults": {"downloadAnswer": {"status": 502, "body": ["x"]}}})",
       "faults/downloadAnswer has a status of 100 to 599 and, maybe, the texts contentType and "
       "body"},
  };
  for (const auto& [body, why] : cases) {
    auto result = post(*server, "/admin/state", body);
    ASSERT_TRUE(result) << body;
    EXPECT_EQ(result->status, 400) << body;
    EXPECT_EQ(json::parse(result->body), json({{"error", why}})) << body;
  }
  EXPECT_EQ(server->state().document(), before);
  EXPECT_EQ(json::parse(contents(folder.file("state.json"))), before) << "and its file neither";

  auto wrongBody = post(*server, "/TallowboxRestService/" + std::string(kInsert), "[1]");
  ASSERT_TRUE(wrongBody);
  EXPECT_EQ(json::parse(wrongBody->body),
            json({{"ReturnStatus", "1"}, {"error", "the body is not a JSON object"}}));
}

TEST_F(BrokerServerTest, DownloadAnswerFaultSendsItsErrorPageInsteadOfTheBytesUntilLifted) {
  auto server = startServer();
  server->state().load(R"({"saved": {"S1": {"text": "hello world"}},
                           "cloud": {"\\C1\\a.txt": {"text": "from the cloud"}}})");
  const std::string page = "<html><body><h1>502 Bad Gateway</h1></body></html>";
  const json fault = {{"status", 502}, {"contentType", "text/html"}, {"body", page}};
  auto set = post(*server, "/admin/state",
                  json({{"faults", {{"cutDownloadAfter", 3}, {"downloadAnswer", fault}}}}).dump());
  ASSERT_TRUE(set);
  ASSERT_EQ(set->status, 200) << set->body;
  const json before = server->state().snapshot();
  const std::string fromComputer =
      "/TallowboxRestService/MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer";
  const std::string fromCloud = "/TallowboxRestService/MAC/SharedFiles.svc/GetFileStreamFromCloud";
  const std::string savedBody = R"({"SavedFileID": "S1", "Length": "0"})";
  const std::string cloudBody = R"({"StrFullPath": "\\C1\\a.txt", "Length": "0"})";
  const std::vector<std::pair<std::string, std::string>> downloads = {{fromComputer, savedBody},
                                                                      {fromCloud, cloudBody}};
  for (const auto& [path, body] : downloads) {
    auto answered = post(*server, path, body);
    ASSERT_TRUE(answered) << path;
    EXPECT_EQ(answered->status, 502) << path;
    EXPECT_EQ(answered->get_header_value("Content-Type"), "text/html") << path;
    EXPECT_EQ(answered->body, page) << path;
  }
  EXPECT_EQ(server->state().snapshot(), before) << "no cut taken, no cloud copy made";

  auto lifted = post(*server, "/admin/state",
                     R"({"faults": {"downloadAnswer": null, "cutDownloadAfter": null}})");
  ASSERT_TRUE(lifted);
  ASSERT_EQ(lifted->status, 200) << lifted->body;
  auto saved = post(*server, fromComputer, savedBody);
  ASSERT_TRUE(saved);
  EXPECT_EQ(saved->status, 200);
  EXPECT_EQ(saved->body, "hello world");
  auto cloud = post(*server, fromCloud, cloudBody);
  ASSERT_TRUE(cloud);
  EXPECT_EQ(cloud->status, 200);
  EXPECT_EQ(cloud->body, "from the cloud");
}

TEST_F(BrokerServerTest, UploadCutBeforeARestartResumesFromTheBytesTheStoreKept) {
  const std::string bytes(300000, 'b');
  std::string transfer;
  {
    auto server = startServer();
    server->state().load(kShares);
    json accepted = json::parse(
        post(*server, "/TallowboxRestService/" + std::string(kInsert),
             R"({"ComputerID": "C1", "FileID": "11", "ChangeType": "1", "IsFile": "True",
                 "FullPath": "Docs/big.bin", "PrevFolderFileID": "10"})")
            ->body);
    transfer = accepted["SharedFileTransferID"];
    server->state().merge({{"faults", {{"cutUploadAfter", 100000}}}});
    httplib::Client client("127.0.0.1", server->port());
    client.Post("/TallowboxRestService/" + std::string(kSend),
                {{"SharedFileTransferID", transfer}, {"Length", "300000"}}, bytes,
                "application/octet-stream");
  }
  // A new server, on a new port, from the same files.
  auto server = startServer();
  auto position =
      post(*server, "/TallowboxRestService/MAC/SharedFiles.svc/CheckFileExistsInTransfers",
           json({{"SharedFileTransferID", transfer}}).dump());
  ASSERT_TRUE(position);
  EXPECT_EQ(json::parse(position->body)["ByteStartPos"], "100000");
  httplib::Client client("127.0.0.1", server->port());
  auto rest = client.Post("/TallowboxRestService/" + std::string(kSend),
                          {{"SharedFileTransferID", transfer}, {"Length", "300000"}},
                          bytes.substr(100000), "application/octet-stream");
  ASSERT_TRUE(rest);
  EXPECT_EQ(json::parse(rest->body), kOk);

  json ben = json::parse(post(*server, "/TallowboxRestService/" + std::string(kQuery),
                              R"({"UserID": "U2", "ComputerID": "C2"})")
                             ->body);
  ASSERT_EQ(ben["RecFileFromTransfer"].size(), 1U);
  EXPECT_EQ(ben["RecFileFromTransfer"][0]["SavedFileID"], transfer);
  auto download =
      post(*server, "/TallowboxRestService/MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer",
           json({{"SavedFileID", transfer}, {"Length", "0"}}).dump());
  ASSERT_TRUE(download);
  EXPECT_EQ(download->body, bytes) << "byte for byte";
}

TEST_F(BrokerServerTest, ServerKilledAtAnyMomentLeavesAStateFileThatParsesAndStartsAgain) {
  std::ofstream(folder.file("scenario.json")) << kShares;
  const std::string stateFile = folder.file("state.json");
  std::size_t reported = 0;
  for (std::size_t round = 0; round < 12; ++round) {
    const std::string output = folder.file("server-" + std::to_string(round) + ".out");
    ChildProcess server({SERVER_PROGRAM, "--port", "0", "--state", stateFile, "--store",
                         folder.file("store"), "--scenario", folder.file("scenario.json")},
                        {}, output);
    int port = 0;
    ASSERT_TRUE(waitUntil(
        [&] {
          std::string url = contents(output);
          std::size_t colon = url.rfind(':');
          if (url.find('\n') == std::string::npos || colon == std::string::npos) return false;
          port = std::stoi(url.substr(colon + 1));
          return true;
        },
        std::chrono::seconds(60)))
        << "round " << round << " did not start: " << contents(output);
    // Changes arrive without a pause until the server is killed; it dies after
    // a different number of answers each round.
    std::atomic<std::size_t> answered{0};
    std::thread sibling([&, port] {
      httplib::Client client("127.0.0.1", port);
      for (std::size_t n = reported;; ++n) {
        json change = {{"ComputerID", "C1"},
                       {"FileID", std::to_string(100 + n)},
                       {"ChangeType", "1"},
                       {"IsFile", "True"},
                       {"FullPath", "Docs/f" + std::to_string(n)},
                       {"PrevFolderFileID", "10"}};
        auto result = client.Post("/TallowboxRestService/" + std::string(kInsert), change.dump(),
                                  "application/json");
        if (!result) return;
        ++answered;
      }
    });
    const bool enough =
        waitUntil([&] { return answered >= 1 + round * 3; }, std::chrono::seconds(60));
    ::kill(server.pid(), SIGKILL);
    EXPECT_EQ(server.wait(), 128 + SIGKILL);
    sibling.join();
    ASSERT_TRUE(enough) << "round " << round;
    reported += answered;

    json kept = json::parse(contents(stateFile), nullptr, false);
    ASSERT_FALSE(kept.is_discarded()) << "round " << round;
    EXPECT_EQ(Broker::problem(kept), "") << "round " << round;
    // Every answered change was written before its answer.
    EXPECT_GE(kept["files"]["C1"].size(), reported) << "round " << round;
  }

  // A state file that is not a state is refused with a reason.
  std::ofstream(stateFile) << R"({"mappings": [)";
  const std::string output = folder.file("refused.out");
  EXPECT_EQ(ChildProcess::run({SERVER_PROGRAM, "--port", "0", "--state", stateFile}, {}, output),
            1);
  EXPECT_NE(contents(output).find("does not hold a state: not JSON"), std::string::npos)
      << contents(output);
}

}  // namespace
