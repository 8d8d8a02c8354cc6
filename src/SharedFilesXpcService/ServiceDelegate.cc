#include "SharedFilesXpcService/ServiceDelegate.h"

#include "SharedFilesXpcService/ServiceConnection.h"
#include "SharedFilesXpcService/ServiceListener.h"
#include "SharedFilesXpcService/SharedFilesXpcService.h"

bool ServiceDelegate::listener(ServiceListener& /*listener*/,
                               ServiceConnection& shouldAcceptNewConnection) {
  shouldAcceptNewConnection.setExportedInterface(ServiceListener::serviceAddress().interface);
  shouldAcceptNewConnection.setExportedObject(SharedFilesXpcService::create(scheduler_));
  shouldAcceptNewConnection.resume();
  return true;
}
