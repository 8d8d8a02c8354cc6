// Wrapped connections over real socket pairs and a real listening socket, and
// the runner serving one in this process.
#include "XPCKit/XPCConnection.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "XPCKit/XPCService.h"
#include "support/LogCapture.h"
#include "support/ScopedEnvironment.h"
#include "support/SocketListening.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

namespace {

// What the handlers of the connections it watches were given.
class Seen : public std::enable_shared_from_this<Seen> {
 public:
  // Records every message and error `connection` hands over from now on.
  void add(XPCConnection& connection) {
    connection.setEventHandler(
        [self = shared_from_this()](const std::optional<Value>& message, XPCConnection&) {
          std::lock_guard lock(self->mutex_);
          self->messages_.push_back(message);
        });
    connection.setErrorHandler([self = shared_from_this()](const XPCObject& error,
                                                           const std::string& description,
                                                           XPCConnection&) {
      std::lock_guard lock(self->mutex_);
      if (error.type() == XPCObject::Type::kError) self->errors_.push_back(description);
    });
  }
  std::vector<std::optional<Value>> messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
  }
  std::vector<std::string> errors() const {
    std::lock_guard lock(mutex_);
    return errors_;
  }
  bool waitForMessages(std::size_t count) const {
    return waitUntil([&] { return messages().size() >= count; });
  }
  bool waitForError(const std::string& description) const {
    return waitUntil([&] {
      auto all = errors();
      return std::find(all.begin(), all.end(), description) != all.end();
    });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::optional<Value>> messages_;
  std::vector<std::string> errors_;
};

Value contents(const Value& value) { return Value(Value::Dictionary{{"contents", value}}); }

class XPCConnectionTest : public ::testing::Test {
 protected:
  struct Pair {
    std::shared_ptr<XPCConnection> service;
    std::shared_ptr<XPCConnection> client;
  };
  // Two wrapped connections, each at one end of a socket pair.
  static Pair connectedPair() {
    auto [mine, theirs] = MessageSocket::pair();
    return {XPCConnection::initWithConnection(XPCRawConnection::createForPeer(std::move(mine))),
            XPCConnection::initWithConnection(XPCRawConnection::createForPeer(std::move(theirs)))};
  }
  static std::shared_ptr<Seen> watch(XPCConnection& connection) {
    auto seen = std::make_shared<Seen>();
    seen->add(connection);
    return seen;
  }

  TemporaryFolder runtime;
  ScopedEnvironment environment{
      [this](Environment& e) { e.runtimeFolder = runtime.path().string(); }};
  LogCapture log;
};

}  // namespace

TEST_F(XPCConnectionTest,
       MessagesBeforeAnyEventHandlerAreDroppedAndDebugLinesAreLoggedNotPassedOn) {
  Pair pair = connectedPair();
  pair.client->sendMessage(Value("too early"));
  pair.client->_sendLog("no handler yet");
  ASSERT_TRUE(log.waitFor("LOG: no handler yet"));

  auto seen = watch(*pair.service);
  pair.client->sendMessage(Value("hello"));
  pair.client->_sendLog("between");
  pair.client->sendMessage(Value(Value::Dictionary{{"XPCDebugLog", Value::integer(42)}}));
  pair.client->sendMessage(Value(Value::Dictionary{{"n", Value::integer(1)}}));
  pair.client->sendMessage(Value(Value::Array{"a", Value(Value::Null{})}));
  ASSERT_TRUE(seen->waitForMessages(3));
  EXPECT_EQ(seen->messages(),
            (std::vector<std::optional<Value>>{contents("hello"),
                                               Value(Value::Dictionary{{"n", Value::integer(1)}}),
                                               contents(Value(Value::Array{"a"}))}));
  EXPECT_TRUE(log.contains("LOG: between"));
  EXPECT_TRUE(log.contains("LOG: 42"));
  EXPECT_TRUE(seen->errors().empty());
}

TEST_F(XPCConnectionTest, EachConnectionErrorReachesTheErrorHandlerWithItsDescription) {
  // The peer of an accepted connection goes: invalid.
  Pair pair = connectedPair();
  auto service = watch(*pair.service);
  pair.client.reset();
  EXPECT_TRUE(service->waitForError("Connection invalid"));

  // (The service at the other end of a named connection goes: interrupted, in
  // the runner's test below.) A service nobody serves: invalid at once, so only the raw
  // connection's own handler, installed before it is resumed, can see it.
  auto nobody = XPCRawConnection::createForService("Nobody.Serves.This");
  std::promise<std::string> error;
  nobody->setEventHandler(
      [&](const XPCObject& event) { error.set_value(event.errorDescription()); });
  nobody->resume();
  EXPECT_EQ(error.get_future().get(), "Connection invalid");
  EXPECT_EQ(XPCConnection::initWithConnection(nullptr), nullptr);
}

TEST_F(XPCConnectionTest, PeerIdentityIsTheProcessAtTheOtherEnd) {
  Pair pair = connectedPair();
  EXPECT_EQ(pair.service->connectionEUID(), Value::integer(::geteuid()));
  EXPECT_EQ(pair.service->connectionEGID(), Value::integer(::getegid()));
  EXPECT_EQ(pair.service->connectionProcessID(), Value::integer(::getpid()));
  std::int64_t session = 0;
  std::ifstream("/proc/self/sessionid") >> session;
  EXPECT_EQ(pair.service->connectionAuditSessionID(), Value::integer(session));
  EXPECT_EQ(pair.service->connectionName(), std::nullopt);

  // Read on the connection's own queue too, from within its handler.
  std::promise<Value> fromHandler;
  pair.service->setEventHandler([&](const std::optional<Value>&, XPCConnection& connection) {
    fromHandler.set_value(connection.connectionProcessID());
  });
  pair.client->sendMessage(Value("who"));
  EXPECT_EQ(fromHandler.get_future().get(), Value::integer(::getpid()));
}

TEST_F(XPCConnectionTest, MessageThatCannotBeSentIsLoggedAndDropped) {
  Pair pair = connectedPair();
  auto seen = watch(*pair.service);
  Value deep("bottom");
  for (int level = 0; level < 40; ++level) deep = Value(Value::Array{deep});
  pair.client->sendMessage(deep);
  pair.client->sendMessage(Value("after"));
  ASSERT_TRUE(seen->waitForMessages(1));
  EXPECT_EQ(seen->messages(), std::vector<std::optional<Value>>{contents("after")});
  EXPECT_TRUE(
      log.contains("Dropped a message that cannot be sent: containers nested deeper than 32"));
}

TEST_F(XPCConnectionTest, RunnerKeepsEachConnectionAndWarnsItOfTerminationOnSigterm) {
  const std::string path = XPCRawConnection::socketPathForService(XPCService::kServiceName);
  EXPECT_EQ(path, runtime.file("Quentara.SharedFilesXpcService.xpc"));
  auto seen = std::make_shared<Seen>();
  auto handedOver = std::make_shared<std::atomic<int>>(0);
  std::thread runner([seen, handedOver] {
    XPCService::runServiceWithConnectionHandler(
        [seen, handedOver](const std::shared_ptr<XPCConnection>& connection) {
          seen->add(*connection);
          ++*handedOver;
        });
  });
  ASSERT_TRUE(waitUntil([&] { return socketListeningAt(path); }));

  auto client = XPCConnection::initWithServiceName(XPCService::kServiceName);
  auto clientSeen = watch(*client);
  ASSERT_TRUE(waitUntil([&] { return *handedOver == 1; }));

  ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
  runner.join();
  EXPECT_EQ(seen->errors(), std::vector<std::string>{"Termination imminent"})
      << "delivered before the runner returned";
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_TRUE(clientSeen->waitForError("Connection interrupted"));
}
