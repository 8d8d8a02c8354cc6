#pragma once

#include <functional>
#include <memory>
#include <string>

#include "SharedFilesXpcService/SharedFilesXpcServiceProtocol.h"

// One calling peer of the service (its unique bus name) and the object that
// receives its messages. Set up by the listener's delegate before it is resumed.
class ServiceConnection {
 public:
  explicit ServiceConnection(std::string peer) : peer_(std::move(peer)) {}

  const std::string& peer() const { return peer_; }

  const std::string& exportedInterface() const { return exportedInterface_; }
  void setExportedInterface(std::string interface) { exportedInterface_ = std::move(interface); }

  const std::shared_ptr<SharedFilesXpcServiceProtocol>& exportedObject() const {
    return exportedObject_;
  }
  void setExportedObject(std::shared_ptr<SharedFilesXpcServiceProtocol> object) {
    exportedObject_ = std::move(object);
  }

  // Messages are delivered only to a resumed connection.
  void resume() { resumed_ = true; }
  bool isResumed() const { return resumed_; }

  // Called once, when the listener finds the peer gone from the bus.
  void setInvalidationHandler(std::function<void()> handler) {
    invalidationHandler_ = std::move(handler);
  }
  void invalidate() {
    std::function<void()> handler = std::move(invalidationHandler_);
    invalidationHandler_ = nullptr;
    if (handler) handler();
  }

 private:
  std::string peer_;
  std::string exportedInterface_;
  std::shared_ptr<SharedFilesXpcServiceProtocol> exportedObject_;
  bool resumed_ = false;
  std::function<void()> invalidationHandler_;
};
