#pragma once

#include "Platform/DispatchQueues.h"
#include "SharedFilesXpcService/ServiceListenerDelegate.h"

// Accepts every peer, without looking at who it is, and gives each its own
// SharedFilesXpcService.
class ServiceDelegate : public ServiceListenerDelegate {
 public:
  // The service objects it creates run their cycles on `scheduler`.
  explicit ServiceDelegate(Scheduler& scheduler = DispatchQueues::shared())
      : scheduler_(scheduler) {}

  bool listener(ServiceListener& listener, ServiceConnection& shouldAcceptNewConnection) override;

 private:
  Scheduler& scheduler_;
};
