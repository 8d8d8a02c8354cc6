#pragma once

#include <chrono>
#include <functional>
#include <thread>

// Polls `condition` until it holds or `limit` has passed; whether it held. The
// condition is evaluated once per poll, so it may act (call, retry) as well.
// The limit only ends a wait that failed: it is long, so that a loaded machine
// (a build beside the tests) never fails a test that would pass.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = std::chrono::seconds(60)) {
  const auto giveUp = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= giveUp) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}
