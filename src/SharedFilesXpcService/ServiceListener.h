#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/BusListener.h"
#include "SharedFilesXpcService/ServiceConnection.h"
#include "SharedFilesXpcService/ServiceListenerDelegate.h"

// The service's listener on the session bus: name "Quentara.SharedFilesXpcService",
// object "/Quentara/SharedFilesXpcService", interface
// "Quentara.SharedFilesXpcServiceProtocol", method "SharedFile".
//
// A connection is one calling peer. The first call from a peer asks the delegate
// to accept it and set it up; that call and every later one from the same peer are
// delivered to the connection's exported object, on the bus thread. Before a new
// peer is set up, the connections of peers that have left the bus are invalidated
// and let go; a peer that called and left keeps its connection until then.
class ServiceListener {
 public:
  static BusListener::Address serviceAddress();

  ServiceListener() = default;
  ServiceListener(const ServiceListener&) = delete;
  ServiceListener& operator=(const ServiceListener&) = delete;

  // The delegate must outlive the listener.
  void setDelegate(ServiceListenerDelegate* delegate);

  // Serves for the life of the process. Throws std::runtime_error when the bus
  // cannot be reached or is lost.
  void resume();
  // Tests: serves on a background thread until stop().
  void resumeInBackground();
  void stop();

  // The connection of `peer`, or nullptr before its first call.
  std::shared_ptr<ServiceConnection> connectionForPeer(const std::string& peer) const;
  std::size_t connectionCount() const;

 private:
  void received(const std::string& sender);
  // Ends the connections of peers that have left the bus.
  void endLeftPeers();

  std::unique_ptr<BusListener> bus_;
  mutable std::mutex mutex_;  // guards the members below
  ServiceListenerDelegate* delegate_ = nullptr;
  std::map<std::string, std::shared_ptr<ServiceConnection>> connections_;
};
