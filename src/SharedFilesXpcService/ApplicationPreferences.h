#pragma once

#include <mutex>

#include "Platform/Value.h"

// A snapshot of the application's preference suite, "Quentara.Tallowbox" (the
// user and computer ids and the product folder), as the service and each handler
// keep one: read afresh where a pass refreshes it, read as it stands in between,
// from any queue.
class ApplicationPreferences {
 public:
  static constexpr const char* kSuiteName = "Quentara.Tallowbox";

  // Empties the snapshot, then reads the suite afresh; gives what was read.
  Value::Dictionary refresh();
  Value::Dictionary snapshot() const;
  void set(Value::Dictionary prefs);

 private:
  mutable std::mutex mutex_;
  Value::Dictionary prefs_;  // guarded by mutex_
};
