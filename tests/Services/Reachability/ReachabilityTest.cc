#include "Services/Reachability/Reachability.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include "Services/NetWorkConnectionStatus.h"
#include "support/FixedReachability.h"
#include "support/ScopedEnvironment.h"

namespace {

struct Answers {
  bool isReachable;
  bool conectionStatus;
};

Answers withFlags(std::optional<std::uint32_t> flags) {
  ScopedEnvironment environment(
      [&](Environment& e) { e.reachabilityFlags = std::make_shared<FixedReachability>(flags); });
  return {Reachability::isReachable(), NetWorkConnectionStatus::ConectionStatus()};
}

}  // namespace

TEST(ReachabilityTest, TheTwoNetworkTestsAgreeAndDifferWhereTheirRulesDo) {
  // Reachable + ConnectionRequired + IsDirect: only the stand-alone test accepts it.
  Answers direct = withFlags(0x2 | 0x4 | 0x20000);
  EXPECT_FALSE(direct.isReachable);
  EXPECT_TRUE(direct.conectionStatus);

  Answers onTraffic = withFlags(0x2 | 0x4 | 0x8);
  EXPECT_TRUE(onTraffic.isReachable);
  EXPECT_TRUE(onTraffic.conectionStatus);
  Answers intervention = withFlags(0x2 | 0x4 | 0x8 | 0x10);
  EXPECT_FALSE(intervention.isReachable);
  EXPECT_FALSE(intervention.conectionStatus);
  Answers onDemand = withFlags(0x2 | 0x4 | 0x20);
  EXPECT_TRUE(onDemand.isReachable);
  EXPECT_TRUE(onDemand.conectionStatus);

  Answers plain = withFlags(0x2);
  EXPECT_TRUE(plain.isReachable);
  EXPECT_TRUE(plain.conectionStatus);
  Answers unreadable = withFlags(std::nullopt);
  EXPECT_FALSE(unreadable.isReachable);
  EXPECT_FALSE(unreadable.conectionStatus);
  // Without Reachable nothing else counts.
  Answers notReachable = withFlags(0x8 | 0x20 | 0x20000);
  EXPECT_FALSE(notReachable.isReachable);
  EXPECT_FALSE(notReachable.conectionStatus);
}

TEST(ReachabilityTest, LocalWiFiNeedsADirectRouteAndConnectionRequiredReadsTheFlag) {
  auto wifi = Reachability::reachabilityForLocalWiFi();
  ASSERT_TRUE(wifi);
  EXPECT_EQ(wifi->localWiFiStatusForFlags(0x2), 0);
  EXPECT_EQ(wifi->localWiFiStatusForFlags(0x2 | 0x20000), 1);
  EXPECT_EQ(wifi->localWiFiStatusForFlags(0x20000), 0);
  ScopedEnvironment environment(
      [](Environment& e) { e.reachabilityFlags = std::make_shared<FixedReachability>(0x2 | 0x4); });
  EXPECT_EQ(wifi->currentReachabilityStatus(), 0);
  EXPECT_TRUE(wifi->connectionRequired());
  auto internet = Reachability::reachabilityForInternetConnection();
  EXPECT_EQ(internet->currentReachabilityStatus(), 0);
  environment.update([](Environment& e) {
    e.reachabilityFlags = std::make_shared<FixedReachability>(std::nullopt);
  });
  EXPECT_FALSE(internet->connectionRequired());
}

TEST(ReachabilityTest, TargetsThatCannotBeWatchedGiveNothing) {
  EXPECT_FALSE(Reachability::reachabilityWithHostName(""));
  EXPECT_TRUE(Reachability::reachabilityWithHostName("tallowbox.example"));
  sockaddr unix{};
  unix.sa_family = AF_UNIX;
  EXPECT_FALSE(Reachability::reachabilityWithAddress(&unix));
  EXPECT_FALSE(Reachability::reachabilityWithAddress(nullptr));
  sockaddr_in6 six{};
  six.sin6_family = AF_INET6;
  EXPECT_TRUE(Reachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&six)));
}
