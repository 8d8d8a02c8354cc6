// The listening socket's place in the file system.
#include "Platform/MessageSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/TemporaryFolder.h"

namespace fs = std::filesystem;

namespace {

// What the listener at `path` refuses with; "" when it listens.
std::string refusal(const std::string& path) {
  try {
    MessageSocket::Listener listener(path);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

}  // namespace

TEST(MessageSocketTest, ListenerReplacesTheSocketOfAGoneServiceAndRefusesAnythingElse) {
  TemporaryFolder folder;
  const std::string path = folder.file("service.xpc");

  // A socket bound and left behind by a process that has gone.
  int gone = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(gone, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::close(gone);
  {
    MessageSocket::Listener listener(path);
    struct stat bound {};
    ASSERT_EQ(::stat(path.c_str(), &bound), 0);
    EXPECT_TRUE(S_ISSOCK(bound.st_mode));
    EXPECT_EQ(bound.st_mode & 0777, 0600U);
    auto client = MessageSocket::connectTo(path);
    auto served = listener.accept();
    ASSERT_TRUE(served);
    std::string why;
    ASSERT_TRUE(client->send({1, 2, 3}, {}, why)) << why;
    MessageSocket::Received received = served->receive();
    EXPECT_EQ(received.outcome, MessageSocket::Received::Outcome::kMessage);
    EXPECT_EQ(received.bytes, (std::vector<std::uint8_t>{1, 2, 3}));

    EXPECT_EQ(refusal(path), "refused to listen at " + path + ": another process serves it");
  }
  EXPECT_FALSE(fs::exists(fs::symlink_status(path))) << "removed with its listener";

  std::ofstream(path) << "keep me";
  EXPECT_EQ(refusal(path), "refused to listen at " + path +
                               ": something else is there (not a socket of this user)");
  EXPECT_EQ(std::ifstream(path).get(), 'k') << "left as it was";
  fs::remove(path);
  fs::create_symlink(folder.file("elsewhere"), path);
  EXPECT_NE(refusal(path), "");
  EXPECT_FALSE(fs::exists(folder.file("elsewhere")));
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_NE(refusal(path), "");
  EXPECT_NE(refusal(folder.file(std::string(120, 'x'))), "") << "longer than a socket path";
}
