#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "XPCKit/XPCConnection.h"
#include "XPCKit/XPCRawConnection.h"

// The legacy runner: serves the service's socket, wraps every peer that connects
// in an XPCConnection and hands it, on the main operation queue, to the
// connection handler. Every connection handed over is kept for the life of the
// process.
class XPCService : public std::enable_shared_from_this<XPCService> {
 public:
  using ConnectionHandler = std::function<void(const std::shared_ptr<XPCConnection>& connection)>;

  // Posted on the default notification center for each new connection, with the
  // XPCConnection as its sender.
  static constexpr const char* kConnectionReceivedNotification =
      "XPCConnectionReceivedNotification";
  // The service's name, its bundle identifier, after which its socket is named.
  static constexpr const char* kServiceName = "Quentara.SharedFilesXpcService";

  // Makes a service with `handler` and runs it. Returns only after SIGTERM (see
  // runService); throws std::runtime_error when the socket cannot be made.
  static void runServiceWithConnectionHandler(ConnectionHandler handler);
  // Serves the socket of kServiceName until SIGTERM, which is delivered to every
  // connection as termination imminent before the socket is removed.
  static void runService();

  // A service that takes every new connection that is announced, on the main
  // operation queue.
  static std::shared_ptr<XPCService> initWithConnectionHandler(ConnectionHandler handler);
  ~XPCService();
  XPCService(const XPCService&) = delete;
  XPCService& operator=(const XPCService&) = delete;

  // Keeps `connection` and hands it to the connection handler.
  void handleConnection(const std::shared_ptr<XPCConnection>& connection);
  std::vector<std::shared_ptr<XPCConnection>> connections() const;

 private:
  explicit XPCService(ConnectionHandler handler) : connectionHandler_(std::move(handler)) {}

  const ConnectionHandler connectionHandler_;
  std::uint64_t observer_ = 0;
  mutable std::mutex mutex_;  // guards connections_
  std::vector<std::shared_ptr<XPCConnection>> connections_;
};

// What the runner does with each peer that connects: wraps it and announces it
// with kConnectionReceivedNotification.
void XPCServiceConnectionHandler(std::shared_ptr<XPCRawConnection> connection);
