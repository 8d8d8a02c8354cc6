#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <set>
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
  // it sent has been handled to its end: a pass queued for each list the reply
  // holds, and the flag of each other pass clear.
  void stepAnswered(const json& reply) {
    answer(ReferenceServer::json(reply));
    std::size_t before = server.requestsFor(kQuery).size();
    // The step itself leaves the next timer step queued.
    const std::size_t timerSteps = std::max<std::size_t>(scheduler.pending(), 1);
    LogCapture log;
    if (scheduler.pending() == 0) {
      service->SharedFile();
    } else {
      scheduler.runNext();
    }
    ASSERT_TRUE(log.waitFor("finished process shared"));
    ASSERT_EQ(server.requestsFor(kQuery).size(), before + 1) << "the step queried";
    const bool sends = reply.contains("FileToTransfer");
    const bool receives = reply.contains("RecFileFromTransfer");
    ASSERT_TRUE(waitUntil([&] {
      return scheduler.pending() == timerSteps + (sends ? 1 : 0) + (receives ? 1 : 0) &&
             service->sendLock() == sends && service->receiveLock() == receives;
    }));
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
  EXPECT_TRUE(waitUntil([&] { return !service->sendLock() && !service->receiveLock(); }));
  auto seen = server.requestsFor(kQuery);
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(json::parse(seen[0].body), json({{"UserID", "U1"}, {"ComputerID", "C1"}}));
}

TEST_F(TransferCycleTest, FirstLevelEntriesAreBlockedByDepthWhereverTheyLieAndNamelessOnesSkipped) {
  // A root at depth 5 and, of the same mapping, an entry at depth 6 below it, one
  // at depth 6 under another folder altogether, and one without a name.
  auto entry = [](const char* owner, const char* name) {
    return Value(Value::Dictionary{
        {"OwnerFileID", owner}, {"UserComputerMapID", "M1"}, {"FileName", name}, {"Blocked", "0"}});
  };
  SharedFilesList::store(
      UserDefaults::standardUserDefaults(),
      {entry("0", "/h/Tallowbox/Ann (Shared)"), entry("F1", "/h/Tallowbox/Ann (Shared)/Docs"),
       entry("F2", "/h/Tallowbox/Elsewhere/Photos"),
       Value::Dictionary{{"OwnerFileID", "F5"}, {"UserComputerMapID", "M1"}, {"Blocked", "0"}}});
  stepAnswered({{"OwnerComputers", {{{"UserComputerMapID", "M1"}, {"Status", "1"}}}}});
  Value::Array entries = list();
  EXPECT_EQ(text(entries[0], "Blocked"), "0");
  EXPECT_EQ(text(entries[1], "Blocked"), "1");
  EXPECT_EQ(text(entries[2], "Blocked"), "1") << "depth alone decides";
  EXPECT_EQ(text(entries[3], "Blocked"), "0") << "no FileName: depth 0, and the pass goes on";
}

TEST_F(TransferCycleTest, LinkInTheRootFoldersPlaceAndUnreadableRepliesNeverEndTheCycle) {
  // A link already in the product folder that points out of it.
  fs::create_directories(root.path() / "outside");
  fs::create_directories(product());
  fs::create_directory_symlink(root.path() / "outside", product() / "Eve (Shared)");
  stepAnswered(
      {{"OwnerComputers", {{{"UserComputerMapID", "M2"}, {"Status", "1"}, {"NickName", "Eve"}}}}});
  EXPECT_TRUE(fs::is_empty(root.path() / "outside"));
  EXPECT_FALSE(fs::exists(product() / "Eve (Shared) 1"));
  EXPECT_TRUE(list().empty()) << "the refused pass stored nothing";

  // Replies the service cannot handle at all restart both flags and say why.
  for (const json& reply :
       {json({{"OwnerComputers", "not a list"}}), json({{"ReturnStatus", {{"code", 0}}}})}) {
    answer(ReferenceServer::json(reply));
    LogCapture log;
    scheduler.runNext();
    ASSERT_TRUE(waitUntil([&] { return !service->sendLock() && !service->receiveLock(); }))
        << reply;
    EXPECT_TRUE(log.containsPrefix("Dropped a pending-work reply: ")) << reply;
    EXPECT_FALSE(log.contains("owner finished 0"));
  }
}

TEST_F(TransferCycleTest, OwnerValuesAListCannotKeepAreRefusedForThatOwnerAloneAndNothingGrows) {
  const json owners = {
      {{"UserComputerMapID", std::string("M\0x", 3)}, {"Status", "1"}, {"NickName", "Nul"}},
      {{"UserComputerMapID", 18446744073709551615ULL}, {"Status", "1"}, {"NickName", "Big"}},
      {{"UserComputerMapID", nullptr}, {"Status", "1"}, {"NickName", "Nobody"}},
      {{"UserComputerMapID", "M2"}, {"Status", "1"}, {"NickName", nullptr}},
      {{"UserComputerMapID", "M1"}, {"Status", "1"}, {"NickName", "Ann"}}};
  const json folders = {{{"FileID", nullptr}, {"SharedStatus", "1"}},
                        {{"FileID", {1, 2}}, {"SharedStatus", "1"}}};
  LogCapture log;
  for (int cycle = 0; cycle < 4; ++cycle) {
    stepAnswered({{"OwnerComputers", owners}, {"SharedfoldersWithStatus", folders}});
    std::set<std::string> made;
    for (const auto& item : fs::directory_iterator(product())) {
      made.insert(item.path().filename().string());
    }
    EXPECT_EQ(made, (std::set<std::string>{"<null> (Shared)", "Ann (Shared)"})) << cycle;
    Value::Array entries = list();
    ASSERT_EQ(entries.size(), 2U) << cycle;
    EXPECT_EQ(text(entries[0], "UserComputerMapID"), "M2");
    struct stat annFolder {};
    ASSERT_EQ(::lstat((product() / "Ann (Shared)").c_str(), &annFolder), 0);
    EXPECT_EQ(entries[1],
              Value(Value::Dictionary{{"OwnerFileID", "0"},
                                      {"UserComputerMapID", "M1"},
                                      {"FileName", Value((product() / "Ann (Shared)").string())},
                                      {"IsFile", "0"},
                                      {"MyFile", "0"},
                                      {"SavedFileID", ""},
                                      {"Blocked", cycle == 0 ? "1" : "0"},
                                      {"DeleteKey", "0"},
                                      {"FileID", Value(std::to_string(annFolder.st_ino))}}))
        << "blocked as received, unblocked one cycle later: cycle " << cycle;
  }
  EXPECT_TRUE(log.contains("Owner Computer Process"));
  EXPECT_TRUE(log.contains("owner finished 5"));
  std::size_t refusals = 0;
  for (const std::string& line : log.lines()) {
    refusals += line.rfind("Refused the shared folder of owner computer ", 0) == 0 ? 1 : 0;
  }
  EXPECT_EQ(refusals, 12U) << "three owners, each refused once a cycle";
}

TEST_F(TransferCycleTest, ProductFolderMayClimbInItsOwnPathButMustBeAbsolute) {
  const json ann = {{"UserComputerMapID", "M1"}, {"Status", "1"}, {"NickName", "Ann"}};
  UserDefaults application("Quentara.Tallowbox");
  application.setObject(Value((home() / ".." / "home").string()), "tallowboxPathKey");
  stepAnswered({{"OwnerComputers", {ann}}});
  EXPECT_TRUE(fs::is_directory(product() / "Ann (Shared)"));
  ASSERT_EQ(list().size(), 1U);
  EXPECT_EQ(text(list()[0], "FileName"),
            (home() / ".." / "home" / "Tallowbox" / "Ann (Shared)").string())
      << "the entry names the folder as the application wrote it";

  SharedFilesList::store(UserDefaults::standardUserDefaults(), {});
  for (const char* relative : {"home", "./home"}) {
    application.setObject(Value(relative), "tallowboxPathKey");
    stepAnswered({{"OwnerComputers", {ann}}});
    EXPECT_TRUE(list().empty()) << "\"" << relative << "\" names no place of its own";
  }
  application.removeObjectForKey("tallowboxPathKey");
  stepAnswered({{"OwnerComputers", {ann}}});
  EXPECT_TRUE(list().empty());
  EXPECT_FALSE(fs::exists("(null)")) << "nothing in the working folder";
  EXPECT_FALSE(fs::exists("home"));
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

TEST_F(TransferCycleTest, FileThatArrivedEarnsOneStepAtOnceAndAFailedOneNone) {
  fs::create_directories(product() / "Ann (Shared)");
  server.state().merge({{"saved", {{"S1", {{"text", "small"}}}}}});
  json entry = {{"ChangeType", "1"},   {"OwnerFileID", "9"},          {"IsFile", "True"},
                {"FromCloud", "0"},    {"FromComputerID", "C2"},      {"ToComputerID", "C1"},
                {"SavedFileID", "S1"}, {"SharedFileTransferID", "T1"}};
  // The file table's path, without its leading separator.
  entry["FullPathFromFileTable"] = (product() / "Ann (Shared)" / "a.txt").string().substr(1);
  stepAnswered({{"RecFileFromTransfer", {entry}}});
  runPasses();
  ASSERT_TRUE(waitUntil([&] { return scheduler.pending() == 2; }, 60s))
      << "the placed and acknowledged file earns a step";
  std::vector<std::chrono::nanoseconds> delays = scheduler.pendingDelays();
  EXPECT_EQ(delays[0], 2s) << "the timer's step is untouched";
  EXPECT_LE(delays[1], 100ms);
  const std::size_t queries = server.requestsFor(kQuery).size();
  answer(ReferenceServer::json({{"ReturnStatus", "0"}}));
  scheduler.runNext();  // the timer's step is next in line; it runs with both flags clear
  ASSERT_TRUE(waitUntil([&] { return !service->sendLock() && !service->receiveLock(); }));
  scheduler.runNext();  // the earned step
  ASSERT_TRUE(waitUntil([&] { return server.requestsFor(kQuery).size() == queries + 2; }));

  // A download that fails earns nothing: the next query waits for the period.
  ASSERT_TRUE(waitUntil([&] { return !service->sendLock() && !service->receiveLock(); }));
  while (scheduler.pending() > 1) scheduler.runNext();
  entry["SharedFileTransferID"] = "T2";
  stepAnswered({{"RecFileFromTransfer", {entry}}});
  server.script("MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer",
                ReferenceServer::json({{"ReturnStatus", "1"}}, 500));
  runPasses();
  ASSERT_TRUE(waitUntil([&] { return !service->receiveLock(); }, 60s));
  EXPECT_EQ(scheduler.pending(), 1U);
}

TEST_F(TransferCycleTest, EarnedStepsComeAtMostTenASecondAndNeverBesideARunningPass) {
  // A pass still running: the other's good end earns nothing yet.
  stepAnswered({{"RecFileFromTransfer", {{{"SharedFileTransferID", "2"}}}}});
  ASSERT_TRUE(service->receiveLock());
  service->transferEndedWell();
  service->SendFileNotify();
  EXPECT_EQ(scheduler.pending(), 2U) << "the timer and the receive pass, nothing earned";
  service->ReceiveFileNotify();
  ASSERT_EQ(scheduler.pending(), 3U) << "earned once both passes have ended";

  // Run the earned step, and earn another at once: it comes no sooner than a
  // tenth of a second after the first began, however fast this machine is. The
  // earned step queries at once, so the server has its empty answer ready first.
  answer(ReferenceServer::json({{"ReturnStatus", "0"}}));
  while (scheduler.pending() > 1) scheduler.runNext();
  ASSERT_TRUE(waitUntil([&] { return !service->sendLock() && !service->receiveLock(); }));
  service->transferEndedWell();
  service->ReceiveFileNotify();
  ASSERT_EQ(scheduler.pending(), 2U);
  const auto began = std::chrono::steady_clock::now();
  scheduler.runNext();  // the timer's step
  ASSERT_TRUE(waitUntil([&] { return !service->sendLock() && !service->receiveLock(); }));
  scheduler.runNext();  // the earned step
  ASSERT_TRUE(waitUntil([&] { return !service->sendLock() && !service->receiveLock(); }));
  service->transferEndedWell();
  service->SendFileNotify();
  const auto earned = std::chrono::steady_clock::now();
  ASSERT_EQ(scheduler.pending(), 2U);
  EXPECT_GE(scheduler.pendingDelays().back() + (earned - began), 100ms);
  // One earned step pending at a time.
  service->transferEndedWell();
  service->ReceiveFileNotify();
  EXPECT_EQ(scheduler.pending(), 2U);
}
