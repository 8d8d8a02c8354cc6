#include "SharedFilesXpcService/SharedFilesXpcService.h"

#include <gtest/gtest.h>

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
  }

  std::shared_ptr<FixedReachability> network = FixedReachability::install(0x2);
  ReferenceServer server;
  TemporaryFolder folder;
  ManualScheduler scheduler;
};

}  // namespace

TEST_F(SharedFilesXpcServiceTest, EveryStepReschedulesItselfTwoSecondsLaterForEver) {
  auto service = SharedFilesXpcService::create(scheduler);
  service->SharedFile();
  EXPECT_TRUE(service->sendLock()) << "a step that found both flags clear is querying";
  EXPECT_TRUE(service->receiveLock());
  for (int step = 0; step < 5; ++step) {
    ASSERT_EQ(scheduler.pendingDelays(), std::vector<nanoseconds>{nanoseconds(2'000'000'000)});
    ASSERT_TRUE(scheduler.runNext());
  }
  // A step that found a flag set changed neither flag.
  EXPECT_TRUE(service->sendLock());
  EXPECT_TRUE(service->receiveLock());
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
