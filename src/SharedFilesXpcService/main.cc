#include <cstring>
#include <exception>
#include <iostream>

#include "Platform/Log.h"
#include "Services/ServicesUtilities.h"
#include "SharedFilesXpcService/ServiceDelegate.h"
#include "SharedFilesXpcService/ServiceListener.h"
#include "SharedFilesXpcService/SharedFilesXpcService.h"

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--log-stderr") == 0) Log::enableStandardError(true);
  }

  if (ServicesUtilities::is10_7()) {
    std::cerr << "SharedFilesXpcService: the legacy XPC runner for AppKit 1138 is not built yet\n";
    return 1;
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
