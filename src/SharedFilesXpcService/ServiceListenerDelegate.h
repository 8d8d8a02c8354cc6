#pragma once

class ServiceConnection;
class ServiceListener;

// Decides on each new calling peer and sets up its connection.
class ServiceListenerDelegate {
 public:
  virtual ~ServiceListenerDelegate() = default;
  // Returns whether the peer is accepted; an accepted connection must have an
  // exported object and be resumed.
  virtual bool listener(ServiceListener& listener,
                        ServiceConnection& shouldAcceptNewConnection) = 0;
};
