#pragma once

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/Log.h"
#include "support/WaitUntil.h"

// Keeps every log line written while it lives. A line another thread is writing
// as the capture ends goes to the capture's own state, which outlives it.
class LogCapture {
 public:
  LogCapture() {
    capture_ = Log::addCapture([state = state_](const std::string& line) {
      std::lock_guard lock(state->mutex);
      state->lines.push_back(line);
    });
  }
  ~LogCapture() { Log::removeCapture(capture_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const {
    std::lock_guard lock(state_->mutex);
    return state_->lines;
  }
  bool contains(const std::string& line) const {
    auto all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
  }
  // Waits up to five seconds for `line` to be logged.
  bool waitFor(const std::string& line) const {
    return waitUntil([&] { return contains(line); }, std::chrono::seconds(5));
  }
  bool containsPrefix(const std::string& prefix) const {
    auto all = lines();
    return std::any_of(all.begin(), all.end(),
                       [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<std::string> lines;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
  std::uint64_t capture_ = 0;
};
