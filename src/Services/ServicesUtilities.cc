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

std::string ServicesUtilities::baseURL() {
  const char* configured = std::getenv("TALLOWBOX_BASE_URL");  // NOLINT(concurrency-mt-unsafe)
  return configured != nullptr && *configured != '\0' ? configured : TALLOWBOX_DEFAULT_BASE_URL;
}

std::string ServicesUtilities::convertPathToMac(const std::string& path) {
  std::string local = "/" + path;
  for (char& c : local) {
    if (c == '\\') c = '/';
  }
  return local;
}

std::string ServicesUtilities::convertPathToWindows(const std::string& path) {
  std::string server = path.empty() ? path : path.substr(1);
  for (char& c : server) {
    if (c == '/') c = '\\';
  }
  return server;
}
