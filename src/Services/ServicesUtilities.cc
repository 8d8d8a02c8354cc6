#include "Services/ServicesUtilities.h"

#include <cmath>
#include <cstdlib>
#include <string>

std::optional<double> ServicesUtilities::appKitVersionNumber() {
  const char* text = std::getenv("TALLOWBOX_APPKIT_VERSION");  // NOLINT(concurrency-mt-unsafe)
  if (text == nullptr || *text == '\0') return std::nullopt;
  char* end = nullptr;
  double version = std::strtod(text, &end);
  if (end == text || *end != '\0' || !std::isfinite(version)) return std::nullopt;
  return version;
}

bool ServicesUtilities::is10_7() {
  std::optional<double> version = appKitVersionNumber();
  return version && std::floor(*version) == 1138.0;
}

bool ServicesUtilities::isLessThan10_10() {
  std::optional<double> version = appKitVersionNumber();
  if (!version) return false;
  double floored = std::floor(*version);
  return floored >= 1138.0 && floored < 1343.0;
}
