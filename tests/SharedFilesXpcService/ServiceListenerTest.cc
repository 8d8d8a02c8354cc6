#include "SharedFilesXpcService/ServiceListener.h"

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "ReferenceServer.h"
#include "SharedFilesXpcService/ServiceDelegate.h"
#include "SharedFilesXpcService/SharedFilesXpcService.h"
#include "support/FixedReachability.h"
#include "support/ManualScheduler.h"
#include "support/PrivateBus.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

namespace {

class ServiceListenerTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    // The server refuses every query, so a querying cycle stays stalled.
    server.script("MAC/SharedFiles.svc/GetSharedFilesTransferData",
                  ReferenceServer::json({{"ReturnStatus", "1"}}));
    server.start();
    environment.update([&](Environment& e) { e.baseURL = server.baseURL(); });
    environment.update([&](Environment& e) { e.configFolder = folder.path(); });
    bus.makeSessionBus();
    listener.setDelegate(&delegate);
    listener.resumeInBackground();
  }
  void TearDown() override { listener.stop(); }

  struct Peer {
    std::unique_ptr<sdbus::IConnection> connection = sdbus::createSessionBusConnection();
    std::unique_ptr<sdbus::IProxy> proxy = sdbus::createProxy(
        *connection, "Quentara.SharedFilesXpcService", "/Quentara/SharedFilesXpcService");
    void sharedFile() const {
      proxy->callMethod("SharedFile").onInterface("Quentara.SharedFilesXpcServiceProtocol");
    }
    std::string name() const { return connection->getUniqueName(); }
  };

  SharedFilesXpcService& serviceOf(const Peer& peer) {
    auto connection = listener.connectionForPeer(peer.name());
    if (!connection) throw std::runtime_error("no connection for " + peer.name());
    return dynamic_cast<SharedFilesXpcService&>(*connection->exportedObject());
  }

  std::shared_ptr<FixedReachability> network = FixedReachability::install(0x2);
  ReferenceServer server;
  TemporaryFolder folder;
  PrivateBus bus{folder.path().string()};
  ManualScheduler scheduler;
  ServiceDelegate delegate{scheduler};
  ServiceListener listener;
};

}  // namespace

TEST_F(ServiceListenerTest, TwoCallsFromOnePeerGiveTwoChainsOnOneServiceObject) {
  Peer peer;
  peer.sharedFile();
  peer.sharedFile();
  EXPECT_EQ(listener.connectionCount(), 1U);
  auto connection = listener.connectionForPeer(peer.name());
  ASSERT_TRUE(connection);
  EXPECT_EQ(connection->exportedInterface(), "Quentara.SharedFilesXpcServiceProtocol");
  EXPECT_TRUE(connection->isResumed());
  EXPECT_EQ(scheduler.pending(), 2U) << "one chain per SharedFile";
  EXPECT_TRUE(serviceOf(peer).sendLock());
}

TEST_F(ServiceListenerTest, EveryPeerIsAcceptedWithAServiceObjectOfItsOwn) {
  Peer first;
  Peer second;
  first.sharedFile();
  second.sharedFile();
  EXPECT_EQ(listener.connectionCount(), 2U);
  EXPECT_NE(&serviceOf(first), &serviceOf(second));
}

TEST_F(ServiceListenerTest, BadCallsGetBusErrorsAndTheServiceCarriesOn) {
  Peer peer;
  try {
    peer.proxy->callMethod("ShareEverything").onInterface("Quentara.SharedFilesXpcServiceProtocol");
    FAIL() << "an unknown method was answered";
  } catch (const sdbus::Error& e) {
    EXPECT_EQ(e.getName(), "org.freedesktop.DBus.Error.UnknownMethod");
  }
  EXPECT_EQ(listener.connectionCount(), 0U) << "no service object for refused calls";
  peer.sharedFile();
  EXPECT_EQ(listener.connectionCount(), 1U);
}

TEST_F(ServiceListenerTest, CallersThatLeftEndWhenANewOneCallsSoTheirChainsStopAdding) {
  // 200 short-lived callers, each calling once and leaving the bus.
  std::string lastName;
  for (int i = 0; i < 200; ++i) {
    Peer caller;
    caller.sharedFile();
    lastName = caller.name();
  }
  EXPECT_EQ(scheduler.pending(), 200U) << "a chain each";
  // Wait until the bus has seen the last of them go.
  Peer asker;
  auto onBus = [&](const std::string& name) {
    bool owned = true;
    sdbus::createProxy(*asker.connection, "org.freedesktop.DBus", "/org/freedesktop/DBus")
        ->callMethod("NameHasOwner")
        .onInterface("org.freedesktop.DBus")
        .withArguments(name)
        .storeResultsTo(owned);
    return owned;
  };
  ASSERT_TRUE(waitUntil([&] { return !onBus(lastName); }));
  EXPECT_TRUE(listener.connectionForPeer(lastName))
      << "a caller that left keeps its cycle until now";

  asker.sharedFile();
  EXPECT_EQ(listener.connectionCount(), 1U) << "only the live caller's object is left";
  // Each chain runs its next step once: the ended ones stop, the live one goes on.
  for (std::size_t steps = scheduler.pending(); steps > 0; --steps) scheduler.runNext();
  EXPECT_EQ(scheduler.pending(), 1U);
  asker.sharedFile();
  EXPECT_EQ(scheduler.pending(), 2U) << "a live caller's repeated calls still add chains";
}
