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

  // Reads the suite afresh and makes it the snapshot in one step; gives what was
  // read. A reader on another queue gets the old snapshot or the new one, never
  // an empty one: an error report refreshes it while a query is being made.
  Value::Dictionary refresh();
  Value::Dictionary snapshot() const;
  void set(Value::Dictionary prefs);

 private:
  mutable std::mutex mutex_;
  Value::Dictionary prefs_;  // guarded by mutex_
};
