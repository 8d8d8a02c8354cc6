#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// The service's one log facility. Every line goes to the system log under the
// identity "SharedFilesXpcService" with one priority (the service has no levels);
// with standard error enabled each line is also written there, one per line.
// Texts are the service's own and are written exactly as given.
// Thread-safe.
class Log {
 public:
  // The longest line, in bytes: a longer one is cut to end in "…" within it, as
  // system logs cut long lines too.
  static constexpr std::size_t kMaximumLineLength = 4096;

  using Sink = std::function<void(const std::string& line)>;

  // Also writes every line to standard error (the --log-stderr option).
  static void enableStandardError(bool enabled);

  static void line(const std::string& text);
  // printf-style formatting of a fixed text.
  static void printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

  // Tests: every line is also handed to `sink`, until removeCapture with the
  // number this returns. Sinks are called outside the facility's lock.
  static std::uint64_t addCapture(Sink sink);
  static void removeCapture(std::uint64_t capture);
};
