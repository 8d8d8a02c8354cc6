#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "Platform/Scheduler.h"

// A scheduler that only records work; the test runs it when it chooses, so tests
// of timed behaviour never sleep.
class ManualScheduler : public Scheduler {
 public:
  struct Entry {
    std::chrono::nanoseconds delay;  // zero for dispatchAsync
    Work work;
  };

  void dispatchAsync(Work work) override { add({std::chrono::nanoseconds(0), std::move(work)}); }
  void dispatchAfter(std::chrono::nanoseconds delay, Work work) override {
    add({delay, std::move(work)});
  }

  std::size_t pending() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
  }
  std::vector<std::chrono::nanoseconds> pendingDelays() const {
    std::lock_guard lock(mutex_);
    std::vector<std::chrono::nanoseconds> delays;
    for (const Entry& e : entries_) delays.push_back(e.delay);
    return delays;
  }
  // Runs the oldest recorded work; false when there is none.
  bool runNext() {
    Entry entry;
    {
      std::lock_guard lock(mutex_);
      if (entries_.empty()) return false;
      entry = std::move(entries_.front());
      entries_.pop_front();
    }
    entry.work();
    return true;
  }

 private:
  void add(Entry entry) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
  }

  mutable std::mutex mutex_;
  std::deque<Entry> entries_;
};
