#pragma once

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Log.h"

// Keeps every log line written while it lives.
class LogCapture {
 public:
  LogCapture() {
    Log::setCapture([this](const std::string& line) {
      std::lock_guard lock(mutex_);
      lines_.push_back(line);
    });
  }
  ~LogCapture() { Log::setCapture(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  bool contains(const std::string& line) const {
    auto all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
  }
  // Waits up to five seconds for `line` to be logged.
  bool waitFor(const std::string& line) const {
    for (int i = 0; i < 500 && !contains(line); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return contains(line);
  }
  bool containsPrefix(const std::string& prefix) const {
    auto all = lines();
    return std::any_of(all.begin(), all.end(),
                       [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};
