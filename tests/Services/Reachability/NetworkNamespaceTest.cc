// Runs inside a fresh network namespace (see tests/CMakeLists.txt): only the
// loopback interface, up, and no default route.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <condition_variable>
#include <cstdlib>
#include <future>
#include <mutex>

#include "Platform/DispatchQueues.h"
#include "Platform/NotificationCenter.h"
#include "Services/NetWorkConnectionStatus.h"
#include "Services/Reachability/Reachability.h"

using namespace std::chrono_literals;

namespace {
// The tests run alone in their namespace; nothing else changes the environment.
int addDefaultRoute() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe)
  return std::system("ip route add default dev lo");
}
int addOtherRoute() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe)
  return std::system("ip route add 10.9.8.0/24 dev lo");
}
int deleteDefaultRoute() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe)
  return std::system("ip route del default dev lo");
}
}  // namespace

TEST(NetworkNamespaceTest, WithoutADefaultRouteNeitherTestReachesTheNetwork) {
  EXPECT_FALSE(Reachability::isReachable());
  EXPECT_FALSE(NetWorkConnectionStatus::ConectionStatus());
  // Loopback itself has a route.
  sockaddr_in loopback{};
  loopback.sin_family = AF_INET;
  loopback.sin_addr.s_addr = htonl(0x7F000001);
  auto local = Reachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&loopback));
  EXPECT_EQ(local->currentReachabilityStatus(), 1);
}

TEST(NetworkNamespaceTest, ADefaultRouteMakesTheNetworkReachableAndIsNotifiedOnTheStartingQueue) {
  auto internet = Reachability::reachabilityForInternetConnection();
  std::mutex mutex;
  std::condition_variable changed;
  const void* sender = nullptr;
  bool onStartingQueue = false;
  bool reachableWhenTold = false;
  const DispatchQueues::SerialQueue queue = DispatchQueues::shared().makeSerialQueue("notifier");
  auto token = NotificationCenter::defaultCenter().addObserverForName(
      "kNetworkReachabilityChangedNotification", [&](const void* s) {
        const bool reachable = Reachability::isReachable();
        std::lock_guard lock(mutex);
        if (sender != nullptr) return;
        sender = s;
        onStartingQueue = queue.isCurrent();
        reachableWhenTold = reachable;
        changed.notify_all();
      });
  std::promise<bool> started;
  DispatchQueues::dispatchSerial(queue, [&] { started.set_value(internet->startNotifier()); });
  ASSERT_TRUE(started.get_future().get());
  // A route to another network changes nothing for the internet test: not told.
  ASSERT_EQ(addOtherRoute(), 0);
  ASSERT_EQ(addDefaultRoute(), 0);
  {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, 10s, [&] { return sender != nullptr; }));
    EXPECT_EQ(sender, internet.get());
    EXPECT_TRUE(onStartingQueue);
    EXPECT_TRUE(reachableWhenTold) << "told of a route that changed nothing";
  }
  internet->stopNotifier();
  NotificationCenter::defaultCenter().removeObserver(token);

  // A default route without a gateway: reachable and direct.
  EXPECT_TRUE(Reachability::isReachable());
  EXPECT_TRUE(NetWorkConnectionStatus::ConectionStatus());
  EXPECT_EQ(Reachability::reachabilityForLocalWiFi()->currentReachabilityStatus(), 1);
  ASSERT_EQ(deleteDefaultRoute(), 0);
  EXPECT_FALSE(Reachability::isReachable());
}
