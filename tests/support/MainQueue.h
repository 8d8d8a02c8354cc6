#pragma once

#include <future>

#include "Platform/DispatchQueues.h"

// Waits until the main queue has run everything queued before this call.
inline void drainMainQueue() {
  std::promise<void> drained;
  DispatchQueues::shared().dispatchMain([&] { drained.set_value(); });
  drained.get_future().wait();
}
