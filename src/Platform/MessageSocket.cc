#include "Platform/MessageSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "Platform/Log.h"

namespace {

// The waits between tries while connections cannot be accepted for want of
// descriptors or memory: the first, doubled on each failure up to the longest.
constexpr std::chrono::milliseconds kFirstPause{5};
constexpr std::chrono::milliseconds kLongestPause{1000};

std::string failure(const std::string& what, int error) {
  return what + ": " + std::strerror(error);  // NOLINT(concurrency-mt-unsafe): glibc's is safe
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    throw std::runtime_error("cannot use \"" + path + "\" as a socket path: too long or empty");
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

int newSocket() {
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error(failure("cannot make a socket", errno));
  return fd;
}

// Connects `fd` to `path`; the errno of the failure, or 0.
int connectTo(int fd, const std::string& path) {
  sockaddr_un address = addressOf(path);
  int rc = 0;
  do {
    rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (rc < 0 && errno == EINTR);
  return rc < 0 ? errno : 0;
}

MessageSocket::Credentials credentialsOf(int fd) {
  MessageSocket::Credentials credentials;
  ucred peer{};
  socklen_t length = sizeof peer;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return credentials;
  credentials.euid = peer.uid;
  credentials.egid = peer.gid;
  credentials.pid = static_cast<std::uint32_t>(peer.pid);
  std::ifstream session("/proc/" + std::to_string(peer.pid) + "/sessionid");
  std::uint64_t id = 0;
  if (session >> id && id <= 0xFFFFFFFF)
    credentials.auditSessionID = static_cast<std::uint32_t>(id);
  return credentials;
}

// The pipe SIGTERM is written into while a listener lives. Made once and never
// closed, so that a handler running on any thread as a listener ends never
// writes into a descriptor that is gone, or reused.
struct TerminationPipe {
  int fds[2] = {-1, -1};
  TerminationPipe() {
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) fds[0] = fds[1] = -1;
  }
};
const TerminationPipe& terminationPipe() {
  static const auto* pipe = new TerminationPipe;
  return *pipe;
}

// Waits up to `limit` for SIGTERM; whether it came.
bool terminationWithin(std::chrono::milliseconds limit) {
  pollfd termination{terminationPipe().fds[0], POLLIN, 0};
  return ::poll(&termination, 1, static_cast<int>(limit.count())) > 0;
}

extern "C" void terminationRequested(int /*signal*/) {
  const int saved = errno;
  const char byte = 1;
  static_cast<void>(::write(terminationPipe().fds[1], &byte, 1));
  errno = saved;
}

}  // namespace

MessageSocket::MessageSocket(int fd) : fd_(fd), credentials_(credentialsOf(fd)) {}

MessageSocket::~MessageSocket() { close(); }

std::unique_ptr<MessageSocket> MessageSocket::connectTo(const std::string& path) {
  int fd = newSocket();
  int error = 0;
  try {
    error = ::connectTo(fd, path);
  } catch (...) {
    ::close(fd);
    throw;
  }
  if (error != 0) {
    ::close(fd);
    throw std::runtime_error(failure("cannot connect to " + path, error));
  }
  return std::unique_ptr<MessageSocket>(new MessageSocket(fd));
}

std::pair<std::unique_ptr<MessageSocket>, std::unique_ptr<MessageSocket>> MessageSocket::pair() {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
    throw std::runtime_error(failure("cannot make a socket pair", errno));
  }
  return {std::unique_ptr<MessageSocket>(new MessageSocket(fds[0])),
          std::unique_ptr<MessageSocket>(new MessageSocket(fds[1]))};
}

MessageSocket::Received MessageSocket::receive() {
  int fd = -1;
  {
    std::lock_guard lock(mutex_);
    fd = fd_;
  }
  Received received;
  if (fd < 0) return received;
  received.bytes.resize(kMaximumMessageSize);
  iovec part{received.bytes.data(), received.bytes.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaximumDescriptors)];
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  ssize_t n = 0;
  do {
    n = ::recvmsg(fd, &message, MSG_CMSG_CLOEXEC);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    received.why = failure("cannot receive", errno);
    received.bytes.clear();
    return received;
  }
  // Every descriptor that came is owned at once, so that none is left open
  // whatever becomes of the datagram.
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
       header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
      received.descriptors.push_back(std::make_shared<const FileHandle>(descriptor));
    }
  }
  received.bytes.resize(static_cast<std::size_t>(n));
  if ((message.msg_flags & MSG_TRUNC) != 0) {
    received.outcome = Received::Outcome::kRefused;
    received.why = "a datagram larger than " + std::to_string(kMaximumMessageSize) + " bytes";
  } else if ((message.msg_flags & MSG_CTRUNC) != 0) {
    received.outcome = Received::Outcome::kRefused;
    received.why = "a datagram whose descriptors did not all arrive";
  } else if (n > 0) {
    received.outcome = Received::Outcome::kMessage;
  }
  if (received.outcome != Received::Outcome::kMessage) {
    received.bytes.clear();
    received.descriptors.clear();
  }
  return received;
}

bool MessageSocket::send(const std::vector<std::uint8_t>& bytes,
                         const std::vector<Descriptor>& descriptors, std::string& why) {
  if (bytes.empty() || bytes.size() > kMaximumMessageSize) {
    why = "a datagram of " + std::to_string(bytes.size()) + " bytes cannot be sent";
    return false;
  }
  if (descriptors.size() > kMaximumDescriptors) {
    why = std::to_string(descriptors.size()) + " descriptors cannot go in one datagram";
    return false;
  }
  iovec part{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaximumDescriptors)];
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (!descriptors.empty()) {
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(sizeof(int) * descriptors.size());
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
    for (std::size_t i = 0; i < descriptors.size(); ++i) {
      int descriptor = descriptors[i] ? descriptors[i]->fileDescriptor() : -1;
      std::memcpy(CMSG_DATA(header) + i * sizeof(int), &descriptor, sizeof(int));
    }
  }
  std::lock_guard lock(mutex_);
  if (fd_ < 0) {
    why = "the connection is closed";
    return false;
  }
  ssize_t n = 0;
  do {
    n = ::sendmsg(fd_, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    why = failure("cannot send", errno);
    return false;
  }
  return true;
}

void MessageSocket::shutDown() {
  std::lock_guard lock(mutex_);
  if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
}

void MessageSocket::close() {
  std::lock_guard lock(mutex_);
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

MessageSocket::Listener::Listener(std::string path) : path_(std::move(path)) {
  const sockaddr_un address = addressOf(path_);
  struct stat existing {};
  if (::lstat(path_.c_str(), &existing) == 0) {
    if (!S_ISSOCK(existing.st_mode) || existing.st_uid != ::geteuid()) {
      throw std::runtime_error("refused to listen at " + path_ +
                               ": something else is there (not a socket of this user)");
    }
    int probe = newSocket();
    int error = ::connectTo(probe, path_);
    ::close(probe);
    if (error != ECONNREFUSED) {
      throw std::runtime_error("refused to listen at " + path_ +
                               (error == 0 ? ": another process serves it"
                                           : failure(": cannot tell whether it is served", error)));
    }
    // The socket of a service that has gone: nobody answers at it any more.
    if (::unlink(path_.c_str()) != 0 && errno != ENOENT) {
      throw std::runtime_error(failure("cannot replace " + path_, errno));
    }
  }

  // SIGTERM is caught before the socket appears, so that whoever sees it can end
  // the listener with it.
  const int termination = terminationPipe().fds[0];
  if (termination < 0) throw std::runtime_error("cannot make a pipe for SIGTERM");
  // What an earlier listener was sent, or a handler wrote as it ended, is over.
  char stale[64];
  while (::read(termination, stale, sizeof stale) > 0) {
  }
  struct sigaction action {};
  action.sa_handler = terminationRequested;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGTERM, &action, &previousTerminationAction_);
  auto fail = [&](const std::string& what, int error) {
    ::sigaction(SIGTERM, &previousTerminationAction_, nullptr);
    if (fd_ >= 0) ::close(fd_);
    throw std::runtime_error(failure(what, error));
  };

  fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd_ < 0) fail("cannot make a socket", errno);
  // The mode of the socket before it is bound becomes the mode of its file, so
  // there is never a moment when others could connect.
  if (::fchmod(fd_, S_IRUSR | S_IWUSR) != 0) fail("cannot set the socket's mode", errno);
  if (::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("cannot listen at " + path_, errno);
  }
  struct stat bound {};
  if (::lstat(path_.c_str(), &bound) != 0 || ::chmod(path_.c_str(), S_IRUSR | S_IWUSR) != 0 ||
      ::listen(fd_, SOMAXCONN) != 0) {
    int error = errno;
    ::unlink(path_.c_str());
    fail("cannot listen at " + path_, error);
  }
  device_ = bound.st_dev;
  inode_ = bound.st_ino;
}

MessageSocket::Listener::~Listener() {
  ::sigaction(SIGTERM, &previousTerminationAction_, nullptr);
  struct stat current {};
  if (::lstat(path_.c_str(), &current) == 0 && current.st_dev == device_ &&
      current.st_ino == inode_) {
    ::unlink(path_.c_str());
  }
  ::close(fd_);
}

std::unique_ptr<MessageSocket> MessageSocket::Listener::accept() {
  // How long to wait before the next try while the process is out of
  // descriptors or memory; zero while it is not.
  std::chrono::milliseconds pause{0};
  for (;;) {
    pollfd watched[2] = {{terminationPipe().fds[0], POLLIN, 0}, {fd_, POLLIN, 0}};
    if (::poll(watched, 2, -1) < 0) {
      if (errno == EINTR) continue;
      Log::line(failure("Stopped accepting connections", errno));
      return nullptr;
    }
    if ((watched[0].revents & POLLIN) != 0) return nullptr;
    if ((watched[1].revents & POLLIN) == 0) continue;
    int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) {
      if (pause.count() > 0) Log::line("Accepting connections again");
      // Datagrams are awaited in blocking reads; sends never wait (MSG_DONTWAIT).
      ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
      return std::unique_ptr<MessageSocket>(new MessageSocket(fd));
    }
    const int error = errno;
    if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
      // The connection stays queued, so the socket stays readable: trying again
      // at once would only fail again.
      if (pause.count() == 0) Log::line(failure("Cannot accept a connection", error));
      pause = std::clamp(pause * 2, kFirstPause, kLongestPause);
      if (terminationWithin(pause)) return nullptr;
    } else if (error != EINTR && error != EAGAIN && error != ECONNABORTED) {
      Log::line(failure("Cannot accept a connection", error));
    }
  }
}
