#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>

#include "Platform/Log.h"
#include "Services/ServicesUtilities.h"
#include "SharedFilesXpcService/ServiceDelegate.h"
#include "SharedFilesXpcService/ServiceListener.h"
#include "SharedFilesXpcService/SharedFilesXpcService.h"

namespace {

// Tests of the whole process shorten the cycle through
// TALLOWBOX_TEST_CYCLE_PERIOD_MS (a whole number of milliseconds above 0); any
// other value is ignored and the cycle keeps its period.
void applyTestCyclePeriod() {
  const char* text =
      std::getenv("TALLOWBOX_TEST_CYCLE_PERIOD_MS");  // NOLINT(concurrency-mt-unsafe)
  if (text == nullptr) return;
  long milliseconds = 0;
  const char* end = text + std::strlen(text);
  auto [stop, error] = std::from_chars(text, end, milliseconds);
  if (error != std::errc() || stop != end || milliseconds <= 0) {
    std::cerr << "SharedFilesXpcService: ignored TALLOWBOX_TEST_CYCLE_PERIOD_MS=" << text << "\n";
    return;
  }
  SharedFilesXpcService::setCyclePeriodForTesting(std::chrono::milliseconds(milliseconds));
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--log-stderr") == 0) Log::enableStandardError(true);
  }

  if (ServicesUtilities::is10_7()) {
    std::cerr << "SharedFilesXpcService: the legacy XPC runner for AppKit 1138 is not built yet\n";
    return 1;
  }

  applyTestCyclePeriod();
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
