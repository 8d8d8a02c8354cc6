#include "Platform/DispatchQueues.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>

#include "SharedFilesXpcService/SharedFilesXpcService.h"
#include "support/LogCapture.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

using namespace std::chrono_literals;

namespace {

// Counts down to zero; wait() returns once it is there.
class Latch {
 public:
  explicit Latch(int count) : count_(count) {}
  void arrive() {
    std::lock_guard lock(mutex_);
    if (--count_ == 0) done_.notify_all();
  }
  bool wait() {
    std::unique_lock lock(mutex_);
    return done_.wait_for(lock, 20s, [this] { return count_ <= 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  int count_;
};

}  // namespace

TEST(DispatchQueuesTest, MainQueueRunsWorkInOrderOneAtATimeOnItsOwnThread) {
  DispatchQueues queues(4);
  std::vector<int> order;  // touched only on the main queue
  std::set<std::thread::id> threads;
  Latch done(1);
  for (int i = 0; i < 200; ++i) {
    queues.dispatchMain([&, i] {
      EXPECT_TRUE(queues.isMainQueueThread());
      order.push_back(i);
      threads.insert(std::this_thread::get_id());
      if (i == 199) done.arrive();
    });
  }
  ASSERT_TRUE(done.wait());
  std::promise<void> read;
  queues.dispatchMain([&] {
    ASSERT_EQ(order.size(), 200U);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
    EXPECT_EQ(threads.size(), 1U);
    read.set_value();
  });
  read.get_future().wait();
  EXPECT_FALSE(queues.isMainQueueThread());
}

TEST(DispatchQueuesTest, SerialQueueNeverRunsTwoWorksAtOnceAndKeepsOrder) {
  DispatchQueues queues(4);
  auto serial = queues.makeSerialQueue();
  std::atomic<int> running{0};
  std::vector<int> order;  // touched only on the serial queue
  Latch done(500);
  for (int i = 0; i < 500; ++i) {
    DispatchQueues::dispatchSerial(serial, [&, i] {
      EXPECT_EQ(running.fetch_add(1), 0);
      order.push_back(i);
      running.fetch_sub(1);
      done.arrive();
    });
  }
  ASSERT_TRUE(done.wait());
  std::promise<std::vector<int>> result;
  DispatchQueues::dispatchSerial(serial, [&] { result.set_value(order); });
  std::vector<int> seen = result.get_future().get();
  for (int i = 0; i < 500; ++i) ASSERT_EQ(seen[static_cast<size_t>(i)], i);
}

TEST(DispatchQueuesTest, ExceptionEscapingWorkIsLoggedAndTheQueuesGoOn) {
  LogCapture log;
  {
    DispatchQueues queues(2);
    Latch done(3);
    queues.dispatchAsync([&] {
      done.arrive();
      throw std::out_of_range("index 3 beyond bounds");
    });
    queues.dispatchMain([&] {
      done.arrive();
      throw 7;
    });
    queues.dispatchAfter(1ms, [&] {
      EXPECT_FALSE(queues.isMainQueueThread()) << "delayed work runs on the pool";
      done.arrive();
    });
    ASSERT_TRUE(done.wait());
    std::promise<void> after;
    queues.dispatchMain([&] { after.set_value(); });
    after.get_future().wait();
  }
  EXPECT_EQ(log.lines().size(), 2U);
  EXPECT_TRUE(log.contains("Dropped an exception that escaped queued work: index 3 beyond bounds"));
  EXPECT_TRUE(log.contains("Dropped an exception that escaped queued work"));
}

// The flags and the snapshot are shared by the bus thread, the cycle's steps and
// the handlers' threads; this runs them all at once for the race detector.
TEST(DispatchQueuesTest, CycleChainsAndNotifiesFromManyThreadsShareTheServiceSafely) {
  TemporaryFolder folder;
  ScopedEnvironment environment([&](Environment& e) {
    e.configFolder = folder.path();
    e.cyclePeriod = 1ms;
  });
  {
    DispatchQueues queues(4);
    auto service = SharedFilesXpcService::create(queues);
    Latch done(300);
    for (int i = 0; i < 100; ++i) {
      queues.dispatchAsync([&] {
        service->SharedFile();
        done.arrive();
      });
      queues.dispatchMain([&] {
        service->SendFileNotify();
        (void)service->iAppsPrefs();
        done.arrive();
      });
      queues.dispatchAsync([&] {
        service->ReceiveFileNotify();
        service->setSharedFilesDefaultsArray(SharedFilesEntries(Value::Array{Value("x")}));
        done.arrive();
      });
    }
    ASSERT_TRUE(done.wait());
  }
}
