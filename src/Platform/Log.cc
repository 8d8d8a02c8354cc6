#include "Platform/Log.h"

#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace {

struct LogState {
  std::mutex mutex;
  bool toStandardError = false;
  std::map<std::uint64_t, std::shared_ptr<Log::Sink>> captures;
  std::uint64_t nextCapture = 1;
  bool opened = false;
};

// Never destroyed: work on other threads may still log while the process exits.
LogState& state() {
  static auto* s = new LogState;
  return *s;
}

}  // namespace

void Log::enableStandardError(bool enabled) {
  std::lock_guard lock(state().mutex);
  state().toStandardError = enabled;
}

std::uint64_t Log::addCapture(Sink sink) {
  std::lock_guard lock(state().mutex);
  std::uint64_t number = state().nextCapture++;
  state().captures.emplace(number, std::make_shared<Sink>(std::move(sink)));
  return number;
}

void Log::removeCapture(std::uint64_t capture) {
  std::lock_guard lock(state().mutex);
  state().captures.erase(capture);
}

namespace {

// `text` cut to kMaximumLineLength bytes, ending in "…", at a character's start.
std::string cut(const std::string& text) {
  static constexpr std::string_view kEllipsis = "\u2026";
  std::size_t keep = Log::kMaximumLineLength - kEllipsis.size();
  // Back off continuation bytes so no character is split.
  while (keep > 0 && (static_cast<unsigned char>(text[keep]) & 0xC0U) == 0x80U) --keep;
  return text.substr(0, keep) + std::string(kEllipsis);
}

}  // namespace

void Log::line(const std::string& whole) {
  const std::string text = whole.size() > kMaximumLineLength ? cut(whole) : whole;
  std::vector<std::shared_ptr<Sink>> captures;
  {
    std::lock_guard lock(state().mutex);
    if (!state().opened) {
      ::openlog("SharedFilesXpcService", LOG_PID, LOG_USER);
      state().opened = true;
    }
    ::syslog(LOG_NOTICE, "%s", text.c_str());
    if (state().toStandardError) {
      std::fprintf(stderr, "%s\n", text.c_str());  // NOLINT(cert-err33-c): nothing to do on failure
      std::fflush(stderr);                         // NOLINT(cert-err33-c)
    }
    for (const auto& [number, sink] : state().captures) captures.push_back(sink);
  }
  for (const auto& sink : captures) (*sink)(text);
}

void Log::printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text;
  if (length > 0) {
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
    int written = std::vsnprintf(buffer.data(), buffer.size(), format, args);
    if (written > 0)
      text.assign(buffer.data(), static_cast<std::size_t>(std::min(written, length)));
  }
  va_end(args);
  line(text);
}
