// The service program on AppKit 1138: no session bus, a socket in its runtime
// folder, and a client speaking to it through XPCConnection or, for what no
// well-behaved client sends, through a socket of its own. What it did is read
// from the reference server's request log, from the opens of the application's
// preference file (each cycle step reads it) and from its log.
//
// The cycle period is an hour here, so each chain makes its one step at once and
// no other during a test, and every chain asks the server once. A step reads the
// application's suite, which is opened only when its file has changed; the file
// is changed after every count, so every open is one chain started. Opens are
// counted after every message, because the kernel reports opens that follow one
// another unread as one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "Platform/UserDefaults.h"
#include "ReferenceServer.h"
#include "XPCKit/XPCConnection.h"
#include "XPCKit/XPCService.h"
#include "XPCKit/XPCWireFormat.h"
#include "support/ChildProcess.h"
#include "support/OpenCounter.h"
#include "support/ScopedEnvironment.h"
#include "support/SocketListening.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kQuery = "MAC/SharedFiles.svc/GetSharedFilesTransferData";

// A client socket of the test's own, for datagrams XPCConnection would never send.
class RawClient {
 public:
  explicit RawClient(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_SEQPACKET, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect to " + path);
    }
  }
  ~RawClient() { ::close(fd_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  int fd() const { return fd_; }
  bool send(const std::vector<std::uint8_t>& bytes, const std::vector<int>& descriptors = {}) {
    iovec part{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
    std::vector<char> control(CMSG_SPACE(sizeof(int) * descriptors.size()));
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
      message.msg_control = control.data();
      message.msg_controllen = control.size();
      cmsghdr* header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
      std::memcpy(CMSG_DATA(header), descriptors.data(), sizeof(int) * descriptors.size());
    }
    return ::sendmsg(fd_, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  // Whether the service has closed its end.
  bool closedByService() {
    char byte = 0;
    return ::recv(fd_, &byte, 1, MSG_DONTWAIT) == 0;
  }

 private:
  int fd_;
};

std::vector<std::uint8_t> payload(const XPCObject& root) {
  return XPCWireFormat::encode(root).bytes;
}

class LegacyServiceProcessTest : public ::testing::Test {
 protected:
  ScopedEnvironment environment;
  void SetUp() override {
    for (const char* folder : {"home", "tmp", "config", "run"}) {
      fs::create_directories(root.path() / folder);
    }
    server.start();
    environment.update([&](Environment& e) {
      e.configFolder = root.file("config");
      e.runtimeFolder = root.file("run");
    });
    UserDefaults application("Quentara.Tallowbox");
    application.setObject("C1", "computerIdKey");
    application.setObject("U1", "userIdKey");
    application.setObject(Value(root.file("home")), "tallowboxPathKey");
    steps = std::make_unique<OpenCounter>(UserDefaults::pathOfSuite("Quentara.Tallowbox"));
  }

  std::vector<std::string> settings() const {
    return {"TALLOWBOX_APPKIT_VERSION=1138.5",        "DBUS_SESSION_BUS_ADDRESS",
            "XDG_RUNTIME_DIR=" + root.file("run"),    "TALLOWBOX_BASE_URL=" + server.baseURL(),
            "XDG_CONFIG_HOME=" + root.file("config"), "TMPDIR=" + root.file("tmp"),
            "TALLOWBOX_TEST_CYCLE_PERIOD_MS=3600000"};
  }
  void startService() {
    service =
        std::make_unique<ChildProcess>(std::vector<std::string>{SERVICE_PROGRAM, "--log-stderr"},
                                       settings(), root.file("service.log"));
    ASSERT_TRUE(waitUntil([&] { return socketListeningAt(socketPath()); })) << log();
  }
  std::string socketPath() const {
    return root.file("run") + "/Quentara.SharedFilesXpcService.xpc";
  }

  std::string log() const {
    std::ifstream in(root.file("service.log"));
    return {std::istreambuf_iterator<char>(in), {}};
  }
  bool logged(const std::string& line) {
    return waitUntil([&] { return log().find(line + "\n") != std::string::npos; });
  }
  std::size_t queries() const { return server.requestsFor(kQuery).size(); }

  // The chains started so far, once the service has handled everything `client`
  // sent before: a debug line sent last is logged after all of it is handled.
  std::size_t chainsAfterDebugLine(XPCConnection& client) {
    const std::string line = "marker " + std::to_string(++markers);
    client._sendLog(line);
    EXPECT_TRUE(logged("LOG: " + line));
    const std::size_t chains = steps->count();
    steps->change();
    return chains;
  }
  // A new connection whose messages reach the service's handler. Until the
  // service has given a new connection its handler, what arrives is dropped; so
  // messages are sent one at a time until one of them starts a chain.
  std::shared_ptr<XPCConnection> servedConnection() {
    auto client = XPCConnection::initWithServiceName(XPCService::kServiceName);
    for (int attempt = 0; attempt < 1000; ++attempt) {
      const std::size_t before = chainsAfterDebugLine(*client);
      client->sendMessage(Value("start"));
      if (chainsAfterDebugLine(*client) == before + 1) return client;
    }
    ADD_FAILURE() << "no message was handled";
    return client;
  }

  TemporaryFolder root;
  ReferenceServer server;
  std::unique_ptr<OpenCounter> steps;
  std::unique_ptr<ChildProcess> service;
  int markers = 0;
};

}  // namespace

TEST_F(LegacyServiceProcessTest, EveryMessageOnAnyConnectionStartsAChainOfItsOwnAndDebugLinesNone) {
  startService();
  auto first = servedConnection();
  auto second = servedConnection();
  const std::size_t chains = chainsAfterDebugLine(*second);
  EXPECT_EQ(chains, 2U);

  first->sendMessage(Value(Value::Dictionary{{"any", "content"}}));
  EXPECT_EQ(chainsAfterDebugLine(*first), chains + 1);
  first->_sendLog("a debug line from the application");
  EXPECT_EQ(chainsAfterDebugLine(*first), chains + 1) << "a debug line starts no chain";
  second->sendMessage(Value::integer(7));
  EXPECT_EQ(chainsAfterDebugLine(*second), chains + 2);
  EXPECT_TRUE(logged("LOG: a debug line from the application"));
  EXPECT_TRUE(waitUntil([&] { return queries() == chains + 2; })) << "each chain asked the server";
  EXPECT_TRUE(service->running());
}

TEST_F(LegacyServiceProcessTest, DatagramsThatAreNotMessagesCloseOnlyTheirOwnConnection) {
  startService();
  auto served = servedConnection();
  // How each payload is refused is the decoder's own test; here one of each way.
  const std::vector<std::vector<std::uint8_t>> datagrams = {
      {'g', 'a', 'r', 'b', 'a', 'g', 'e', '!'},
      payload(XPCObject::string("not a dictionary")),
      std::vector<std::uint8_t>(150000, 0x42),
      {},
  };
  for (const std::vector<std::uint8_t>& datagram : datagrams) {
    RawClient client(socketPath());
    ASSERT_TRUE(client.send(datagram));
    EXPECT_TRUE(waitUntil([&] { return client.closedByService(); }))
        << "a datagram of " << datagram.size() << " bytes left its connection open";
  }
  const std::size_t chains = chainsAfterDebugLine(*served);
  served->sendMessage(Value("still served"));
  EXPECT_EQ(chainsAfterDebugLine(*served), chains + 1);
  EXPECT_TRUE(service->running());
  for (const char* why :
       {"not a message: magic number 0x62726167", "a message that is not a dictionary",
        "a datagram larger than 131072 bytes"}) {
    EXPECT_NE(log().find("Closed a connection whose peer sent what is not a message: "),
              std::string::npos);
    EXPECT_NE(log().find(why), std::string::npos) << why << " was not logged:\n" << log();
  }
}

TEST_F(LegacyServiceProcessTest, DescriptorsOfEveryKindSentInAMessageAreClosedOnceHandled) {
  startService();
  auto served = servedConnection();
  int pipeEnds[2];
  ASSERT_EQ(::pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK), 0);
  const std::string fifo = root.file("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  FileHandle fifoReader(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  FileHandle pipeReader(pipeEnds[0]);
  {
    const auto pipeWriter = std::make_shared<const FileHandle>(pipeEnds[1]);
    const auto fifoWriter =
        std::make_shared<const FileHandle>(::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    RawClient client(socketPath());
    const std::vector<std::uint8_t> message =
        payload(XPCObject::dictionary({{"pipe", XPCObject::fileDescriptor(pipeWriter)},
                                       {"fifo", XPCObject::fileDescriptor(fifoWriter)},
                                       {"socket", XPCObject::fileDescriptor(nullptr)},
                                       {"memory", XPCObject::sharedMemory(nullptr)}}));
    // In the order the encoder numbered them: by key, fifo, memory, pipe, socket.
    ASSERT_TRUE(client.send(message, {fifoWriter->fileDescriptor(), client.fd(),
                                      pipeWriter->fileDescriptor(), client.fd()}));
    // Unnamed descriptors beside a message: closed with it.
    ASSERT_TRUE(client.send(payload(XPCObject::dictionary({})), {pipeWriter->fileDescriptor()}));
  }
  char byte = 0;
  EXPECT_TRUE(waitUntil([&] { return ::read(pipeEnds[0], &byte, 1) == 0; }))
      << "the service still holds the pipe";
  EXPECT_TRUE(waitUntil([&] { return ::read(fifoReader.fileDescriptor(), &byte, 1) == 0; }))
      << "the service still holds the FIFO";
  const std::size_t chains = chainsAfterDebugLine(*served);
  served->sendMessage(Value("still served"));
  EXPECT_EQ(chainsAfterDebugLine(*served), chains + 1);
  EXPECT_TRUE(service->running());
}
