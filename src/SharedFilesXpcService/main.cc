#include <cstring>
#include <exception>
#include <optional>

#include "Platform/FreedMemory.h"
#include "Platform/Log.h"
#include "Services/ServicesUtilities.h"
#include "SharedFilesXpcService/ServiceDelegate.h"
#include "SharedFilesXpcService/ServiceListener.h"
#include "SharedFilesXpcService/SharedFilesXpcService.h"
#include "XPCKit/XPCService.h"

int main(int argc, char** argv) {
  // The service runs for months: large blocks go back to the system when freed.
  FreedMemory::keepLittle();
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--log-stderr") == 0) Log::enableStandardError(true);
  }

  if (ServicesUtilities::is10_7()) {
    // The legacy runner, without the session bus: every message on any
    // connection starts one more service object with a cycle of its own.
    try {
      XPCService::runServiceWithConnectionHandler(
          [](const std::shared_ptr<XPCConnection>& connection) {
            connection->setEventHandler(
                [](const std::optional<Value>& /*message*/, XPCConnection& /*connection*/) {
                  SharedFilesXpcService::create()->SharedFile();
                });
          });
    } catch (const std::exception& e) {
      Log::printf("SharedFilesXpcService stopped: %s", e.what());
      return 1;
    }
    return 0;
  }

  ServiceDelegate delegate;
  ServiceListener listener;
  listener.setDelegate(&delegate);
  try {
    listener.resume();
  } catch (const std::exception& e) {
    Log::printf("SharedFilesXpcService stopped: %s", e.what());
    return 1;
  }
  return 0;
}
