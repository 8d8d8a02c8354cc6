#include <exception>
#include <optional>

#include "Platform/CommandLine.h"
#include "Platform/FreedMemory.h"
#include "Platform/Log.h"
#include "Services/ServicesUtilities.h"
#include "SharedFilesXpcService/ServiceDelegate.h"
#include "SharedFilesXpcService/ServiceListener.h"
#include "SharedFilesXpcService/SharedFilesXpcService.h"
#include "XPCKit/XPCService.h"

namespace {

constexpr const char* kUsage = R"(Usage: SharedFilesXpcService [--log-stderr]
       SharedFilesXpcService --help | --version

The Tallowbox shared-files service. It serves SharedFile on the session bus as
Quentara.SharedFilesXpcService (on AppKit 1138, on the socket
$XDG_RUNTIME_DIR/Quentara.SharedFilesXpcService.xpc instead) and, once called, runs
its cycle until SIGTERM.

  --log-stderr  print every log line on standard error too, beside the system log
  --help        print this and exit
  --version     print the version and exit
)";

}  // namespace

int main(int argc, char** argv) {
  bool logToStandardError = false;
  CommandLine commandLine("SharedFilesXpcService", kUsage);
  commandLine.flag("--log-stderr", logToStandardError);
  if (std::optional<int> status = commandLine.parse(argc, argv)) return *status;

  // The service runs for months: large blocks go back to the system when freed.
  FreedMemory::keepLittle();
  if (logToStandardError) Log::enableStandardError(true);

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
