#include "Platform/NotificationCenter.h"

#include <vector>

NotificationCenter& NotificationCenter::defaultCenter() {
  static auto* center = new NotificationCenter;
  return *center;
}

std::uint64_t NotificationCenter::addObserverForName(const std::string& name, Observer observer) {
  std::lock_guard lock(mutex_);
  observers_.emplace(next_, std::make_pair(name, std::move(observer)));
  return next_++;
}

void NotificationCenter::removeObserver(std::uint64_t token) {
  std::lock_guard lock(mutex_);
  observers_.erase(token);
}

void NotificationCenter::postNotificationName(const std::string& name, const void* sender) {
  std::vector<Observer> toCall;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [token, entry] : observers_) {
      if (entry.first == name) toCall.push_back(entry.second);
    }
  }
  for (const Observer& observer : toCall) observer(sender);
}
