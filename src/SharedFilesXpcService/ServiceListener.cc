#include "SharedFilesXpcService/ServiceListener.h"

#include <stdexcept>

BusListener::Address ServiceListener::serviceAddress() {
  return {"Quentara.SharedFilesXpcService", "/Quentara/SharedFilesXpcService",
          "Quentara.SharedFilesXpcServiceProtocol", "SharedFile"};
}

void ServiceListener::setDelegate(ServiceListenerDelegate* delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

void ServiceListener::resume() {
  bus_ = std::make_unique<BusListener>(serviceAddress(),
                                       [this](const std::string& sender) { received(sender); });
  bus_->run();
}

void ServiceListener::resumeInBackground() {
  bus_ = std::make_unique<BusListener>(serviceAddress(),
                                       [this](const std::string& sender) { received(sender); });
  bus_->runInBackground();
}

void ServiceListener::stop() {
  if (bus_) bus_->stop();
}

std::shared_ptr<ServiceConnection> ServiceListener::connectionForPeer(
    const std::string& peer) const {
  std::lock_guard lock(mutex_);
  auto it = connections_.find(peer);
  return it == connections_.end() ? nullptr : it->second;
}

std::size_t ServiceListener::connectionCount() const {
  std::lock_guard lock(mutex_);
  return connections_.size();
}

void ServiceListener::endLeftPeers() {
  std::vector<std::string> peers;
  {
    std::lock_guard lock(mutex_);
    peers.reserve(connections_.size());
    for (const auto& [peer, connection] : connections_) peers.push_back(peer);
  }
  // The bus is asked without the lock held.
  std::vector<std::string> gone;
  for (const std::string& peer : peers) {
    if (!bus_->hasPeer(peer)) gone.push_back(peer);
  }
  std::vector<std::shared_ptr<ServiceConnection>> left;
  {
    std::lock_guard lock(mutex_);
    for (const std::string& peer : gone) {
      auto it = connections_.find(peer);
      if (it == connections_.end()) continue;
      left.push_back(std::move(it->second));
      connections_.erase(it);
    }
  }
  for (const auto& connection : left) connection->invalidate();
}

void ServiceListener::received(const std::string& sender) {
  std::shared_ptr<ServiceConnection> connection = connectionForPeer(sender);
  if (!connection) {
    endLeftPeers();
    ServiceListenerDelegate* delegate = nullptr;
    {
      std::lock_guard lock(mutex_);
      delegate = delegate_;
    }
    auto fresh = std::make_shared<ServiceConnection>(sender);
    if (delegate == nullptr || !delegate->listener(*this, *fresh)) {
      throw std::runtime_error("The service did not accept the connection");
    }
    std::lock_guard lock(mutex_);
    connection = connections_.try_emplace(sender, std::move(fresh)).first->second;
  }
  if (!connection->isResumed() || !connection->exportedObject()) {
    throw std::runtime_error("The connection has no object to receive the message");
  }
  connection->exportedObject()->SharedFile();
}
