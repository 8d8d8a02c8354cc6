#pragma once

#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Platform/FileHandle.h"

// One end of a connected Unix SOCK_SEQPACKET socket: each datagram is one whole
// message, and the descriptors sent beside it travel as SCM_RIGHTS. Descriptors
// received are owned by handles, so each is closed when the last holder lets go.
//
// receive() is called from one thread at a time; send(), shutDown() and close()
// may be called from any thread.
class MessageSocket {
 public:
  using Descriptor = std::shared_ptr<const FileHandle>;

  // The largest datagram either side sends or takes.
  static constexpr std::size_t kMaximumMessageSize = std::size_t{128} * 1024;
  // The most descriptors one datagram can carry (the kernel's SCM_MAX_FD).
  static constexpr std::size_t kMaximumDescriptors = 253;

  // Who the peer was when the connection was made (SO_PEERCRED), and its audit
  // session (/proc/<pid>/sessionid; 4294967295 when it has none or it cannot be read).
  struct Credentials {
    std::uint32_t euid = 0;
    std::uint32_t egid = 0;
    std::uint32_t pid = 0;
    std::uint32_t auditSessionID = 0xFFFFFFFF;
  };

  struct Received {
    enum class Outcome {
      kMessage,  // `bytes` and `descriptors` hold one datagram
      kClosed,   // the peer has gone, or this end was shut down or closed
      kRefused,  // a datagram that could not be taken whole; `why` says why
    };
    Outcome outcome = Outcome::kClosed;
    std::vector<std::uint8_t> bytes;
    std::vector<Descriptor> descriptors;
    std::string why;
  };

  // Connects to the socket at `path`. Throws std::runtime_error saying why not.
  static std::unique_ptr<MessageSocket> connectTo(const std::string& path);
  // Two ends connected to each other. Throws std::runtime_error.
  static std::pair<std::unique_ptr<MessageSocket>, std::unique_ptr<MessageSocket>> pair();

  ~MessageSocket();
  MessageSocket(const MessageSocket&) = delete;
  MessageSocket& operator=(const MessageSocket&) = delete;

  // Waits for the next datagram. A datagram larger than kMaximumMessageSize, or
  // whose descriptors did not all fit, is refused, its descriptors closed. An
  // empty datagram cannot be told apart from the peer's end on this kind of
  // socket, and reads as kClosed.
  Received receive();
  // Sends one datagram without waiting for room; false, with the reason in `why`,
  // when it cannot go whole now.
  bool send(const std::vector<std::uint8_t>& bytes, const std::vector<Descriptor>& descriptors,
            std::string& why);
  // Ends both directions: a receive() waiting on another thread returns kClosed,
  // and the peer reads the end of the connection.
  void shutDown();
  // Closes the descriptor. Not while another thread waits in receive().
  void close();

  const Credentials& peerCredentials() const { return credentials_; }

  // A listening socket at a path of the file system, mode 0600. While one lives,
  // SIGTERM is caught: it makes accept() answer nullptr from then on. (One
  // listener at a time.)
  class Listener {
   public:
    // Listens at `path`. A socket left there by a process that no longer serves
    // it is replaced; anything else at the path (a socket still served, one of
    // another user, a file, a folder, a link) is refused with std::runtime_error.
    explicit Listener(std::string path);
    // Stops listening and removes its socket, if the path still names it.
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Waits for the next connection; nullptr once SIGTERM has arrived. While
    // the process is out of descriptors or memory it tries again after a wait
    // that grows from a few milliseconds to a second, and logs once when that
    // starts and once when a connection is accepted again; SIGTERM ends the
    // wait.
    std::unique_ptr<MessageSocket> accept();
    const std::string& path() const { return path_; }

   private:
    std::string path_;
    int fd_ = -1;
    struct sigaction previousTerminationAction_ {};
    std::uint64_t device_ = 0;
    std::uint64_t inode_ = 0;
  };

 private:
  explicit MessageSocket(int fd);

  mutable std::mutex mutex_;  // guards fd_
  int fd_;
  Credentials credentials_;
};
