#include "Platform/Environment.h"

#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "Platform/Log.h"

namespace {

std::optional<std::string> variable(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): read once, at start
  if (value == nullptr || *value == '\0') return std::nullopt;
  return std::string(value);
}

std::string homeFromPasswordDatabase() {
  struct passwd entry {};
  struct passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr) {
    return found->pw_dir;
  }
  return "/";
}

std::optional<double> decimal(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  char* end = nullptr;
  double number = std::strtod(text->c_str(), &end);
  if (end == text->c_str() || *end != '\0' || !std::isfinite(number)) return std::nullopt;
  return number;
}

std::optional<std::chrono::milliseconds> testCyclePeriod() {
  std::optional<std::string> text = variable("TALLOWBOX_TEST_CYCLE_PERIOD_MS");
  if (!text) return std::nullopt;
  long milliseconds = 0;
  const char* end = text->data() + text->size();
  auto [stop, error] = std::from_chars(text->data(), end, milliseconds);
  if (error != std::errc() || stop != end || milliseconds <= 0) {
    Log::printf("Ignored TALLOWBOX_TEST_CYCLE_PERIOD_MS=%s", text->c_str());
    return std::nullopt;
  }
  return std::chrono::milliseconds(milliseconds);
}

struct Current {
  std::mutex mutex;
  std::shared_ptr<const Environment> environment;
};

// Never destroyed: work on other threads may read it while the process exits.
Current& current() {
  static auto* slot = new Current;
  return *slot;
}

std::atomic<long> gInjectedTransferFailure{0};

}  // namespace

std::string Environment::ownTemporaryFolder() {
  return "/var/tmp/tallowbox-" + std::to_string(::getuid()) + "/";
}

Environment Environment::fromProcess() {
  Environment environment;
  environment.homeFolder = variable("HOME").value_or(homeFromPasswordDatabase());
  std::optional<std::string> config = variable("XDG_CONFIG_HOME");
  environment.configFolder =
      config && config->front() == '/' ? *config : environment.homeFolder + "/.config";
  environment.temporaryFolder = variable("TMPDIR").value_or(ownTemporaryFolder());
  if (environment.temporaryFolder.back() != '/') environment.temporaryFolder += '/';
  std::optional<std::string> runtime = variable("XDG_RUNTIME_DIR");
  if (runtime && runtime->front() == '/') environment.runtimeFolder = *runtime;
  environment.baseURL = variable("TALLOWBOX_BASE_URL").value_or(TALLOWBOX_DEFAULT_BASE_URL);
  environment.appKitVersionNumber = decimal(variable("TALLOWBOX_APPKIT_VERSION"));
  if (auto period = testCyclePeriod()) environment.cyclePeriod = *period;
  return environment;
}

std::shared_ptr<const Environment> Environment::current() {
  Current& slot = ::current();
  std::lock_guard lock(slot.mutex);
  if (!slot.environment) slot.environment = std::make_shared<const Environment>(fromProcess());
  return slot.environment;
}

void Environment::replace(Environment environment) {
  Current& slot = ::current();
  auto replacement = std::make_shared<const Environment>(std::move(environment));
  std::lock_guard lock(slot.mutex);
  slot.environment = std::move(replacement);
}

void Environment::injectTransferFailure(long code) { gInjectedTransferFailure.store(code); }

long Environment::takeInjectedTransferFailure() { return gInjectedTransferFailure.exchange(0); }
