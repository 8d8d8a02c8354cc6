#include "XPCKit/XPCService.h"

#include "Platform/DispatchQueues.h"
#include "Platform/NotificationCenter.h"

void XPCServiceConnectionHandler(std::shared_ptr<XPCRawConnection> connection) {
  std::shared_ptr<XPCConnection> wrapper = XPCConnection::initWithConnection(std::move(connection));
  NotificationCenter::defaultCenter().postNotificationName(
      XPCService::kConnectionReceivedNotification, wrapper.get());
}

void XPCService::runServiceWithConnectionHandler(ConnectionHandler handler) {
  std::shared_ptr<XPCService> service = initWithConnectionHandler(std::move(handler));
  runService();
}

void XPCService::runService() { XPCRawConnection::main(kServiceName, XPCServiceConnectionHandler); }

std::shared_ptr<XPCService> XPCService::initWithConnectionHandler(ConnectionHandler handler) {
  std::shared_ptr<XPCService> service(new XPCService(std::move(handler)));
  std::weak_ptr<XPCService> weak = service;
  service->observer_ = NotificationCenter::defaultCenter().addObserverForName(
      kConnectionReceivedNotification, [weak](const void* sender) {
        // Only XPCServiceConnectionHandler posts this name, with a wrapper it
        // holds while the notification is delivered.
        std::shared_ptr<XPCConnection> connection = std::const_pointer_cast<XPCConnection>(
            static_cast<const XPCConnection*>(sender)->shared_from_this());
        DispatchQueues::shared().dispatchMain([weak, connection] {
          if (std::shared_ptr<XPCService> self = weak.lock()) self->handleConnection(connection);
        });
      });
  return service;
}

XPCService::~XPCService() { NotificationCenter::defaultCenter().removeObserver(observer_); }

void XPCService::handleConnection(const std::shared_ptr<XPCConnection>& connection) {
  {
    // kept: a connection is never let go, even once it has ended; the runner
    // serves the one application that started it, which connects once.
    std::lock_guard lock(mutex_);
    connections_.push_back(connection);
  }
  if (connectionHandler_) connectionHandler_(connection);
}

std::vector<std::shared_ptr<XPCConnection>> XPCService::connections() const {
  std::lock_guard lock(mutex_);
  return connections_;
}
