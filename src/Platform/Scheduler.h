#pragma once

#include <chrono>
#include <functional>

// Where the service runs its background work: the global background queue, now or
// after a delay. Production uses DispatchQueues; tests substitute a manual one so
// that they never sleep.
class Scheduler {
 public:
  using Work = std::function<void()>;

  virtual ~Scheduler() = default;
  // Runs `work` soon on the background queue.
  virtual void dispatchAsync(Work work) = 0;
  // Runs `work` on the background queue once `delay` has passed.
  virtual void dispatchAfter(std::chrono::nanoseconds delay, Work work) = 0;
};
