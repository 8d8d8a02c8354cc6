#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/DispatchQueues.h"
#include "Platform/MessageSocket.h"
#include "XPCKit/XPCObject.h"

// The raw XPC connection that XPCConnection wraps, carried on Linux by one end
// of a SOCK_SEQPACKET Unix socket: one datagram is one message (a dictionary in
// the XPC wire layout), with its descriptors beside it.
//
// Events, messages and the three connection errors, go to the event handler on
// the target queue, one at a time and in order. A connection starts suspended;
// resume() starts it, and each suspend() holds delivery until a matching
// resume(). Its errors:
//  - connection invalid: the peer of an accepted connection has gone, a named
//    service cannot be reached, or the peer sent a datagram that is not a
//    message (logged; the connection is then closed, and nothing of it
//    delivered);
//  - connection interrupted: the service at the other end of a named
//    connection has gone;
//  - termination imminent: this process has been asked to end (SIGTERM), for
//    every connection that main() handed over.
// After either of the first two nothing more arrives and the socket is closed.
// A datagram is read and decoded on a thread of the connection's own, so that
// no peer can hold up another.
class XPCRawConnection {
 public:
  using EventHandler = std::function<void(const XPCObject& event)>;
  using PeerHandler = std::function<void(std::shared_ptr<XPCRawConnection> peer)>;

  // Where `name` is served: "<runtime folder>/<name>.xpc", or
  // "/tmp/<name>.<uid>.xpc" when there is no runtime folder.
  static std::string socketPathForService(const std::string& name);

  // A connection to the service `name`, connected at once.
  static std::shared_ptr<XPCRawConnection> createForService(const std::string& name);
  // The connection of a peer that connected to this process.
  static std::shared_ptr<XPCRawConnection> createForPeer(std::unique_ptr<MessageSocket> socket);

  // Serves `name`: hands each peer that connects, as a new connection, to
  // `handler`, on the calling thread. On SIGTERM it delivers termination
  // imminent to every connection it handed over that is still open, waits until
  // each has been handled, removes its socket and returns. Throws
  // std::runtime_error when it cannot listen.
  static void main(const std::string& name, const PeerHandler& handler);

  // Cancels.
  ~XPCRawConnection();
  XPCRawConnection(const XPCRawConnection&) = delete;
  XPCRawConnection& operator=(const XPCRawConnection&) = delete;

  // The service's name; nullopt for an accepted peer.
  const std::optional<std::string>& name() const;
  void setEventHandler(EventHandler handler);
  void setTargetQueue(DispatchQueues::SerialQueue queue);
  void resume();
  void suspend();
  // Nothing more is delivered; the socket is closed.
  void cancel();
  // Sends without waiting. A message that cannot be sent is logged and dropped.
  void sendMessage(const XPCObject& message);

  // The peer's identity when the connection was made.
  std::uint32_t euid() const;
  std::uint32_t egid() const;
  std::uint32_t pid() const;
  std::uint32_t auditSessionID() const;

 private:
  struct Channel;
  explicit XPCRawConnection(std::shared_ptr<Channel> channel) : channel_(std::move(channel)) {}
  static void read(const std::shared_ptr<Channel>& channel);

  std::shared_ptr<Channel> channel_;
};
