#include "SharedFilesXpcService/ApplicationPreferences.h"

#include <utility>

#include "Platform/UserDefaults.h"

Value::Dictionary ApplicationPreferences::refresh() {
  Value::Dictionary prefs = UserDefaults::persistentDomainForName(kSuiteName);
  set(prefs);
  return prefs;
}

Value::Dictionary ApplicationPreferences::snapshot() const {
  std::lock_guard lock(mutex_);
  return prefs_;
}

void ApplicationPreferences::set(Value::Dictionary prefs) {
  std::lock_guard lock(mutex_);
  prefs_ = std::move(prefs);
}
