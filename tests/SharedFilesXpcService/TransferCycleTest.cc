#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <thread>

#include "Platform/DispatchQueues.h"
#include "Platform/UserDefaults.h"
#include "ReferenceServer.h"
#include "SharedFilesXpcService/SharedFilesList.h"
#include "SharedFilesXpcService/SharedFilesXpcService.h"
#include "support/FixedReachability.h"
#include "support/LogCapture.h"
#include "support/MainQueue.h"
#include "support/ManualScheduler.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

using namespace std::chrono_literals;
using nlohmann::json;
namespace fs = std::filesystem;

namespace {

constexpr const char* kQuery = "MAC/SharedFiles.svc/GetSharedFilesTransferData";

// The service with its own preference, home and temporary folders, and a
// reference server answering its queries.
class TransferCycleTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    fs::create_directories(home());
    fs::create_directories(root.path() / "tmp");
    server.start();
    environment.update([&](Environment& e) { e.baseURL = server.baseURL(); });
    environment.update([&](Environment& e) { e.configFolder = root.file("config"); });
    environment.update(
        [&](Environment& e) { e.temporaryFolder = std::string(root.file("tmp")) + "/"; });
    Value::Dictionary prefs{
        {"computerIdKey", "C1"}, {"userIdKey", "U1"}, {"tallowboxPathKey", Value(home().string())}};
    UserDefaults application("Quentara.Tallowbox");
    for (const auto& [key, value] : prefs) application.setObject(value, key);
  }
  fs::path home() const { return root.path() / "home"; }
  fs::path product() const { return home() / "Tallowbox"; }

  // Every query from now on gets `reply`.
  void answer(ReferenceServer::Reply reply) {
    server.clearScripts();
    server.script(kQuery, std::move(reply));
  }
  // Runs one timer step (the first through SharedFile) and waits until the query
  // it sent has been handled.
  void stepAnswered(const json& reply) {
    answer(ReferenceServer::json(reply));
    std::size_t before = server.requestsFor(kQuery).size();
    LogCapture log;
    if (scheduler.pending() == 0) {
      service->SharedFile();
    } else {
      scheduler.runNext();
    }
    ASSERT_TRUE(log.waitFor("finished process shared"));
    ASSERT_EQ(server.requestsFor(kQuery).size(), before + 1) << "the step queried";
    drainMainQueue();
  }
  // Runs timer steps and queued passes until the timer step is next.
  void runPasses() {
    while (scheduler.pending() > 1) scheduler.runNext();
  }

  Value::Array list() { return SharedFilesList::load(UserDefaults::standardUserDefaults()); }
  static std::string text(const Value& entry, const char* key) {
    const Value* value = entry.objectForKey(key);
    return value == nullptr || value->string() == nullptr ? "<absent>" : *value->string();
  }

  std::shared_ptr<FixedReachability> network = FixedReachability::install(0x2);
  TemporaryFolder root;
  ReferenceServer server;
  ManualScheduler scheduler;
  std::shared_ptr<SharedFilesXpcService> service = SharedFilesXpcService::create(scheduler);
};

TEST_F(TransferCycleTest, QueryCarriesThisComputerAndAnEmptyReplyReturnsToIdle) {
  answer(ReferenceServer::json({{"ReturnStatus", "0"}}));
  LogCapture log;
  service->SharedFile();
  ASSERT_TRUE(log.waitFor("finished process shared"));
  EXPECT_TRUE(log.contains("owner finished 0"));
  drainMainQueue();
  EXPECT_FALSE(service->sendLock());
  EXPECT_FALSE(service->receiveLock());
  auto seen = server.requestsFor(kQuery);
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(json::parse(seen[0].body), json({{"UserID", "U1"}, {"ComputerID", "C1"}}));

  // A reply without a status is a success too.
  stepAnswered(json::object());
  EXPECT_FALSE(service->sendLock());
  EXPECT_FALSE(service->receiveLock());
}

TEST_F(TransferCycleTest, EachFlagStaysSetUntilItsOwnPassEnds) {
  answer(ReferenceServer::json(
      {{"ReturnStatus", "0"}, {"FileToTransfer", {{{"SharedFileTransferID", "1"}}}}}));
  LogCapture log;
  service->SharedFile();
  ASSERT_TRUE(log.waitFor("finished process shared"));
  drainMainQueue();
  EXPECT_TRUE(service->sendLock()) << "the send pass is queued, not yet run";
  EXPECT_FALSE(service->receiveLock()) << "nothing to receive";
  runPasses();
  EXPECT_FALSE(service->sendLock()) << "the send handler told its delegate";

  stepAnswered({{"RecFileFromTransfer", {{{"SharedFileTransferID", "2"}}}}});
  EXPECT_FALSE(service->sendLock());
  EXPECT_TRUE(service->receiveLock());
  runPasses();
  EXPECT_FALSE(service->receiveLock());
}

TEST_F(TransferCycleTest, RefusedReplyStallsUntilSharedFileAndFailedQueryUnlocksAtOnce) {
  answer(ReferenceServer::json({{"ReturnStatus", "1"}}));
  service->SharedFile();
  ASSERT_TRUE(waitUntil([&] { return server.requestsFor(kQuery).size() == 1; }));
  std::this_thread::sleep_for(100ms);
  drainMainQueue();
  for (int i = 0; i < 3; ++i) scheduler.runNext();
  EXPECT_EQ(server.requestsFor(kQuery).size(), 1U) << "stalled: steps send nothing";
  EXPECT_TRUE(service->sendLock());
  EXPECT_TRUE(service->receiveLock());

  answer(ReferenceServer::Reply{.body = R"({"ReturnStatus":"0"})", .dropAfter = 3});
  service->SharedFile();
  ASSERT_TRUE(waitUntil([&] { return !service->sendLock() && !service->receiveLock(); }))
      << "a dropped connection clears both flags";
  EXPECT_EQ(server.requestsFor(kQuery).size(), 2U);
  scheduler.runNext();
  EXPECT_TRUE(waitUntil([&] { return server.requestsFor(kQuery).size() == 3; }))
      << "the next step queries again";
}

TEST_F(TransferCycleTest, OwnerComputerGetsItsSharedFolderBlockedFirstThenUnblocked) {
  json ann = {{"NickName", "Ann-Laptop"}, {"Status", "1"}, {"UserComputerMapID", "M1"}};
  answer(ReferenceServer::json({{"ReturnStatus", "0"}, {"OwnerComputers", {ann}}}));
  LogCapture log;
  service->SharedFile();
  ASSERT_TRUE(log.waitFor("finished process shared"));
  drainMainQueue();
  EXPECT_TRUE(log.contains("Owner Computer Process"));
  EXPECT_TRUE(log.contains("owner finished 1"));
  const fs::path shared = product() / "Ann-Laptop (Shared)";
  ASSERT_TRUE(fs::is_directory(shared));
  Value::Array entries = list();
  ASSERT_EQ(entries.size(), 1U);
  struct stat attributes {};
  ASSERT_EQ(::lstat(shared.c_str(), &attributes), 0);
  EXPECT_EQ(entries[0],
            Value(Value::Dictionary{{"OwnerFileID", "0"},
                                    {"UserComputerMapID", "M1"},
                                    {"FileName", Value(shared.string())},
                                    {"IsFile", "0"},
                                    {"MyFile", "0"},
                                    {"SavedFileID", ""},
                                    {"Blocked", "1"},
                                    {"DeleteKey", "0"},
                                    {"FileID", Value(std::to_string(attributes.st_ino))}}));

  stepAnswered({{"ReturnStatus", "0"}, {"OwnerComputers", {ann}}});
  ASSERT_EQ(list().size(), 1U) << "nothing new is made";
  EXPECT_EQ(text(list()[0], "Blocked"), "0") << "unblocked one cycle later";

  ann["Status"] = "0";
  stepAnswered({{"ReturnStatus", "0"}, {"OwnerComputers", {ann}}});
  EXPECT_EQ(text(list()[0], "Blocked"), "1") << "the share was turned off";
  EXPECT_TRUE(fs::is_directory(shared)) << "no folder is removed";
}

TEST_F(TransferCycleTest, FirstLevelEntriesAreBlockedByDepthAndReportedFoldersUnblocked) {
  // A root at depth 5 and entries of the same mapping at depth 6, one of them
  // under another folder altogether; a deeper one and another mapping's entry.
  auto entry = [](const char* owner, const char* map, const char* name, const char* blocked) {
    return Value(Value::Dictionary{{"OwnerFileID", owner},
                                   {"UserComputerMapID", map},
                                   {"FileName", name},
                                   {"Blocked", blocked}});
  };
  SharedFilesList::store(UserDefaults::standardUserDefaults(),
                         {entry("0", "M1", "/h/Tallowbox/Ann (Shared)", "0"),
                          entry("F1", "M1", "/h/Tallowbox/Ann (Shared)/Docs", "0"),
                          entry("F2", "M1", "/h/Tallowbox/Elsewhere/Photos", "0"),
                          entry("F3", "M1", "/h/Tallowbox/Ann (Shared)/Docs/a.txt", "0"),
                          entry("F4", "M2", "/h/Tallowbox/Bob (Shared)/Music", "0")});
  stepAnswered({{"OwnerComputers", {{{"UserComputerMapID", "M1"}, {"Status", "1"}}}}});
  Value::Array entries = list();
  EXPECT_EQ(text(entries[0], "Blocked"), "0");
  EXPECT_EQ(text(entries[1], "Blocked"), "1");
  EXPECT_EQ(text(entries[2], "Blocked"), "1") << "depth alone decides";
  EXPECT_EQ(text(entries[3], "Blocked"), "0");
  EXPECT_EQ(text(entries[4], "Blocked"), "0");

  stepAnswered(
      {{"OwnerComputers", {{{"UserComputerMapID", "M1"}, {"Status", "1"}}}},
       {"SharedfoldersWithStatus",
        {{{"FileID", "F1"}, {"SharedStatus", "1"}}, {{"FileID", "F2"}, {"SharedStatus", "0"}}}}});
  entries = list();
  EXPECT_EQ(text(entries[1], "Blocked"), "0") << "reported shared";
  EXPECT_EQ(text(entries[2], "Blocked"), "1") << "reported not shared";
}

TEST_F(TransferCycleTest, MalformedOwnersAndFoldersNeverEndTheCycleOrWriteOutside) {
  stepAnswered(
      {{"OwnerComputers", {{{"UserComputerMapID", "M1"}, {"Status", {{"not", "a status"}}}}}}});
  EXPECT_FALSE(service->sendLock()) << "the owner pass failed; the cycle went on";
  EXPECT_TRUE(list().empty());

  stepAnswered({{"OwnerComputers",
                 {{{"UserComputerMapID", "M2"}, {"Status", "1"}, {"NickName", "../../escape"}}}}});
  EXPECT_FALSE(fs::exists(root.path() / "escape (Shared)"));
  EXPECT_FALSE(fs::exists(home() / "escape (Shared)"));
  EXPECT_TRUE(list().empty()) << "the refused pass stored nothing";

  // A link already in the product folder that points out of it.
  fs::create_directories(root.path() / "outside");
  fs::create_directories(product());
  fs::create_directory_symlink(root.path() / "outside", product() / "Eve (Shared)");
  stepAnswered(
      {{"OwnerComputers", {{{"UserComputerMapID", "M2"}, {"Status", "1"}, {"NickName", "Eve"}}}}});
  EXPECT_TRUE(fs::is_empty(root.path() / "outside"));
  EXPECT_FALSE(fs::exists(product() / "Eve (Shared) 1"));
  EXPECT_TRUE(list().empty()) << "the refused pass stored nothing";

  stepAnswered({{"OwnerComputers", {{{"UserComputerMapID", "M3"}, {"Status", 1}, {"NickName", 7}}}},
                {"SharedfoldersWithStatus", {{{"FileID", "x"}, {"SharedStatus", {1, 2}}}}}});
  EXPECT_TRUE(fs::is_directory(product() / "7 (Shared)"));
  ASSERT_EQ(list().size(), 1U);

  answer(ReferenceServer::json({{"OwnerComputers", "not a list"}}));
  LogCapture log;
  scheduler.runNext();
  ASSERT_TRUE(waitUntil([&] { return !service->sendLock() && !service->receiveLock(); }))
      << "a list of the wrong kind is an undecodable reply";
  EXPECT_FALSE(log.contains("owner finished 0"));
}

TEST_F(TransferCycleTest, ErrorReportsNameTheirFixedClassAndMethodAndThisComputer) {
  service->logErrorMethod(std::runtime_error("disk full"));
  SendFileToTransferHandler().logErrorMethod(std::runtime_error(""));
  ReceiveFileFromTransferHandler().logErrorMethod(std::runtime_error("no file number"));
  const char* log = "MAC/ErrorLog.svc/LogError";
  ASSERT_TRUE(waitUntil([&] { return server.requestsFor(log).size() == 3; }));
  std::map<std::string, json> byClass;
  for (const auto& request : server.requestsFor(log)) {
    json body = json::parse(request.body);
    byClass[body.value("ErrorClass", "")] = body;
  }
  EXPECT_EQ(byClass["SharedFilesXpcService"], json({{"ErrorClass", "SharedFilesXpcService"},
                                                    {"ErrorMethod", "URLSession"},
                                                    {"ErrorMessage", "disk full"},
                                                    {"ComputerID", "C1"},
                                                    {"UserID", "U1"}}));
  EXPECT_EQ(byClass["SendFileToTransferHandler"], json({{"ErrorClass", "SendFileToTransferHandler"},
                                                        {"ErrorMethod", "FileToTransferMethod"},
                                                        {"ComputerID", "C1"},
                                                        {"UserID", "U1"}}))
      << "no reason: no message";
  EXPECT_EQ(byClass["ReceiveFileFromTransferHandler"]["ErrorMethod"], "URLSession");
  EXPECT_EQ(service->iAppsPrefs().at("computerIdKey"), Value("C1")) << "a fresh snapshot";
}

}  // namespace
