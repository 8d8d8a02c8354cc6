// Wrapped connections over real socket pairs and a real listening socket, and
// the runner serving one in this process, also while the process has no
// descriptors left.
#include "XPCKit/XPCConnection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
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

// The runner serving the service on a thread of its own, handing each
// connection to `seen`. Ended with SIGTERM by stop(), or as it goes.
class Runner {
 public:
  explicit Runner(std::shared_ptr<Seen> seen)
      : thread_([this, seen, handedOver = handedOver_] {
          threadID_ = ::gettid();
          XPCService::runServiceWithConnectionHandler(
              [seen, handedOver](const std::shared_ptr<XPCConnection>& connection) {
                seen->add(*connection);
                ++*handedOver;
              });
          returned_ = true;
        }) {
    waitUntil([&] { return threadID_ != 0; });
  }
  ~Runner() { stop(); }
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  void stop() {
    if (!thread_.joinable()) return;
    if (!returned_) ::kill(::getpid(), SIGTERM);
    thread_.join();
  }
  int handedOver() const { return *handedOver_; }
  bool returned() const { return returned_; }
  pid_t threadID() const { return threadID_; }

 private:
  // The handler may outlive the runner's thread, on the main queue.
  std::shared_ptr<std::atomic<int>> handedOver_ = std::make_shared<std::atomic<int>>(0);
  std::atomic<bool> returned_{false};
  std::atomic<pid_t> threadID_{0};
  std::thread thread_;
};

// How many times a thread has gone to sleep (its voluntary context switches),
// read through a descriptor opened beforehand, so also while none is left.
class Sleeps {
 public:
  explicit Sleeps(pid_t thread)
      : fd_(::open(("/proc/self/task/" + std::to_string(thread) + "/status").c_str(),
                   O_RDONLY | O_CLOEXEC)) {}
  ~Sleeps() { ::close(fd_); }
  Sleeps(const Sleeps&) = delete;
  Sleeps& operator=(const Sleeps&) = delete;

  long count() const {
    char text[8192];
    const ssize_t n = ::pread(fd_, text, sizeof text - 1, 0);
    if (n <= 0) return -1;
    text[n] = 0;
    const char* field = std::strstr(text, "\nvoluntary_ctxt_switches:");
    return field == nullptr ? -1 : std::strtol(field + 25, nullptr, 10);
  }

 private:
  int fd_;
};

// Takes every descriptor the process may still open, but one: the soft
// RLIMIT_NOFILE goes down to a little above the highest open, and /dev/null is
// opened until EMFILE. The last one opened is closed again, for the next
// descriptor the test makes. free() and the destructor close them all and put
// the limit back.
class DescriptorsExhausted {
 public:
  DescriptorsExhausted() {
    ::getrlimit(RLIMIT_NOFILE, &saved_);
    int highest = 0;
    for (const auto& open : std::filesystem::directory_iterator("/proc/self/fd")) {
      highest = std::max(highest, std::stoi(open.path().filename().string()));
    }
    rlimit lowered = saved_;
    lowered.rlim_cur = static_cast<rlim_t>(highest) + 16;
    held_.reserve(lowered.rlim_cur);
    if (::setrlimit(RLIMIT_NOFILE, &lowered) != 0) return;
    int fd = -1;
    while ((fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0) held_.push_back(fd);
    failure_ = errno;
    if (!held_.empty()) {
      ::close(held_.back());
      held_.pop_back();
    }
  }
  ~DescriptorsExhausted() { free(); }
  DescriptorsExhausted(const DescriptorsExhausted&) = delete;
  DescriptorsExhausted& operator=(const DescriptorsExhausted&) = delete;

  // The errno that ended the opening: EMFILE once the table is full.
  int failure() const { return failure_; }
  void free() {
    for (int fd : held_) ::close(fd);
    held_.clear();
    ::setrlimit(RLIMIT_NOFILE, &saved_);
  }

 private:
  rlimit saved_{};
  std::vector<int> held_;
  int failure_ = 0;
};

// The address+undefined build checks each new dynamic type it meets through a
// pipe, and reports a fault when there is no descriptor left for one: the
// tests that take every descriptor run in the other builds only.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kTypeChecksNeedDescriptors = true;
#else
constexpr bool kTypeChecksNeedDescriptors = false;
#endif

// Whether another descriptor cannot be opened because the table is full.
bool noDescriptorLeft() {
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) ::close(fd);
  return fd < 0 && errno == EMFILE;
}

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
  Runner runner(seen);
  ASSERT_TRUE(waitUntil([&] { return socketListeningAt(path); }));

  auto client = XPCConnection::initWithServiceName(XPCService::kServiceName);
  auto clientSeen = watch(*client);
  ASSERT_TRUE(waitUntil([&] { return runner.handedOver() == 1; }));

  runner.stop();
  EXPECT_EQ(seen->errors(), std::vector<std::string>{"Termination imminent"})
      << "delivered before the runner returned";
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_TRUE(clientSeen->waitForError("Connection interrupted"));
}

TEST_F(XPCConnectionTest,
       RunnerOutOfDescriptorsPausesBetweenTriesLogsOnceAndServesWhenTheyAreBack) {
  if (kTypeChecksNeedDescriptors) GTEST_SKIP() << "type checks need descriptors";
  const std::string path = XPCRawConnection::socketPathForService(XPCService::kServiceName);
  auto seen = std::make_shared<Seen>();
  Runner runner(seen);
  ASSERT_TRUE(waitUntil([&] { return socketListeningAt(path); }));
  const std::string exhausted = "Cannot accept a connection: Too many open files";
  auto logged = [&](const std::string& line) {
    auto all = log.lines();
    return std::count(all.begin(), all.end(), line);
  };
  const Sleeps sleeps(runner.threadID());
  std::unique_ptr<MessageSocket> waiting;
  {
    DescriptorsExhausted descriptors;
    ASSERT_EQ(descriptors.failure(), EMFILE);
    waiting = MessageSocket::connectTo(path);  // takes the last descriptor
    ASSERT_TRUE(noDescriptorLeft());
    ASSERT_TRUE(log.waitFor(exhausted));
    // Each try fails at once: between tries the accepting thread goes to sleep.
    const long before = sleeps.count();
    ASSERT_GE(before, 0);
    EXPECT_TRUE(waitUntil([&] { return sleeps.count() >= before + 6; }))
        << "the accepting thread never pauses";
    EXPECT_EQ(logged(exhausted), 1) << "a line for every try";
    EXPECT_EQ(runner.handedOver(), 0);
  }

  // The connection that waited is taken.
  ASSERT_TRUE(waitUntil([&] { return runner.handedOver() == 1; }));
  EXPECT_EQ(logged(exhausted), 1);
  EXPECT_EQ(logged("Accepting connections again"), 1);
}

TEST_F(XPCConnectionTest, RunnerOutOfDescriptorsStillEndsOnSigterm) {
  if (kTypeChecksNeedDescriptors) GTEST_SKIP() << "type checks need descriptors";
  const std::string path = XPCRawConnection::socketPathForService(XPCService::kServiceName);
  Runner runner(std::make_shared<Seen>());
  ASSERT_TRUE(waitUntil([&] { return socketListeningAt(path); }));
  DescriptorsExhausted descriptors;
  ASSERT_EQ(descriptors.failure(), EMFILE);
  auto waiting = MessageSocket::connectTo(path);
  ASSERT_TRUE(log.waitFor("Cannot accept a connection: Too many open files"));

  ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
  EXPECT_TRUE(waitUntil([&] { return runner.returned(); }));
  EXPECT_EQ(runner.handedOver(), 0);
  EXPECT_FALSE(log.contains("Accepting connections again"));
}
