#include "SharedFilesXpcService/SharedFilesXpcService.h"

#include <gtest/gtest.h>

#include <fstream>

#include "ReferenceServer.h"
#include "support/FixedReachability.h"
#include "support/ManualScheduler.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

using std::chrono::nanoseconds;

namespace {

class SharedFilesXpcServiceTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    // The server refuses every query, so a querying cycle stays stalled and these
    // tests see the timer alone.
    server.script("MAC/SharedFiles.svc/GetSharedFilesTransferData",
                  ReferenceServer::json({{"ReturnStatus", "1"}}));
    server.start();
    environment.update([&](Environment& e) { e.baseURL = server.baseURL(); });
    environment.update([&](Environment& e) { e.configFolder = folder.path(); });
    std::ofstream(folder.file("Quentara.Tallowbox.plist"))
        << "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
           "<key>computerIdKey</key><string>C1</string>"
           "<key>userIdKey</key><string>U1</string></dict></plist>";
  }

  std::shared_ptr<FixedReachability> network = FixedReachability::install(0x2);
  ReferenceServer server;
  TemporaryFolder folder;
  ManualScheduler scheduler;
};

}  // namespace

TEST_F(SharedFilesXpcServiceTest, NewServiceStartsIdleAndSharedFileTakesASnapshotAndQueries) {
  auto service = SharedFilesXpcService::create(scheduler);
  EXPECT_FALSE(service->sendLock());
  EXPECT_FALSE(service->receiveLock());
  EXPECT_TRUE(service->iAppsPrefs().empty());
  EXPECT_TRUE(service->sharedFilesDefaultsArray().empty());

  service->SharedFile();
  EXPECT_EQ(service->iAppsPrefs().at("computerIdKey"), Value("C1"));
  EXPECT_EQ(service->iAppsPrefs().at("userIdKey"), Value("U1"));
  EXPECT_TRUE(service->sendLock()) << "a step that found both flags clear is querying";
  EXPECT_TRUE(service->receiveLock());
  EXPECT_EQ(scheduler.pendingDelays(), std::vector<nanoseconds>{nanoseconds(2'000'000'000)});
}

TEST_F(SharedFilesXpcServiceTest, EveryStepReschedulesItselfTwoSecondsLaterForEver) {
  auto service = SharedFilesXpcService::create(scheduler);
  service->SharedFile();
  for (int step = 0; step < 5; ++step) {
    ASSERT_EQ(scheduler.pendingDelays(), std::vector<nanoseconds>{nanoseconds(2'000'000'000)});
    ASSERT_TRUE(scheduler.runNext());
  }
  // A step that found a flag set changed neither flag.
  EXPECT_TRUE(service->sendLock());
  EXPECT_TRUE(service->receiveLock());
}

TEST_F(SharedFilesXpcServiceTest, StepTakesAFreshSnapshotOfTheApplicationSuite) {
  auto service = SharedFilesXpcService::create(scheduler);
  service->SharedFile();
  std::ofstream(folder.file("Quentara.Tallowbox.plist"))
      << "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
         "<key>computerIdKey</key><string>C2</string></dict></plist>";
  scheduler.runNext();
  EXPECT_EQ(service->iAppsPrefs().at("computerIdKey"), Value("C2"));
  EXPECT_EQ(service->iAppsPrefs().count("userIdKey"), 0U);

  // An unreadable suite is an empty snapshot, and the cycle goes on.
  std::ofstream(folder.file("Quentara.Tallowbox.plist")) << "\x01\x02 not a plist";
  scheduler.runNext();
  EXPECT_TRUE(service->iAppsPrefs().empty());
  EXPECT_EQ(scheduler.pending(), 1U);
}

TEST_F(SharedFilesXpcServiceTest, EachNotifyClearsOnlyItsOwnFlagAndUnlockClearsBoth) {
  auto service = SharedFilesXpcService::create(scheduler);
  service->SharedFile();
  service->SendFileNotify();
  EXPECT_FALSE(service->sendLock());
  EXPECT_TRUE(service->receiveLock());
  service->ReceiveFileNotify();
  EXPECT_FALSE(service->receiveLock());

  service->SharedFile();
  service->ReceiveFileNotify();
  EXPECT_TRUE(service->sendLock());
  EXPECT_FALSE(service->receiveLock());

  service->SharedFile();
  service->unLockService();
  EXPECT_FALSE(service->sendLock());
  EXPECT_FALSE(service->receiveLock());
}

TEST_F(SharedFilesXpcServiceTest, SecondSharedFileStartsASecondChainOnTheSameObject) {
  auto service = SharedFilesXpcService::create(scheduler);
  service->SharedFile();
  service->SharedFile();
  EXPECT_EQ(scheduler.pending(), 2U);
  scheduler.runNext();
  scheduler.runNext();
  EXPECT_EQ(scheduler.pending(), 2U) << "both chains go on";
  // Each scheduled step holds the service.
  std::weak_ptr<SharedFilesXpcService> weak = service;
  service.reset();
  EXPECT_FALSE(weak.expired());
}

TEST_F(SharedFilesXpcServiceTest, PeriodIsTwoSecondsUnlessATestShortensIt) {
  EXPECT_EQ(Environment::current()->cyclePeriod, nanoseconds(2'000'000'000));
  environment.update([](Environment& e) { e.cyclePeriod = std::chrono::milliseconds(50); });
  auto service = SharedFilesXpcService::create(scheduler);
  service->SharedFile();
  EXPECT_EQ(scheduler.pendingDelays(), std::vector<nanoseconds>{nanoseconds(50'000'000)});
}
