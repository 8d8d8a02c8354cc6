#include "SharedFilesXpcService/ServiceDelegate.h"

#include "SharedFilesXpcService/ServiceConnection.h"
#include "SharedFilesXpcService/ServiceListener.h"
#include "SharedFilesXpcService/SharedFilesXpcService.h"

bool ServiceDelegate::listener(ServiceListener& /*listener*/,
                               ServiceConnection& shouldAcceptNewConnection) {
  shouldAcceptNewConnection.setExportedInterface(ServiceListener::serviceAddress().interface);
  std::shared_ptr<SharedFilesXpcService> service = SharedFilesXpcService::create(scheduler_);
  shouldAcceptNewConnection.setExportedObject(service);
  // On the desktop the service ends with the application that asked for it; here
  // it outlives its callers, so an object ends when its peer has left the bus.
  shouldAcceptNewConnection.setInvalidationHandler(
      [weak = std::weak_ptr<SharedFilesXpcService>(service)] {
        if (auto left = weak.lock()) left->end();
      });
  shouldAcceptNewConnection.resume();
  return true;
}
