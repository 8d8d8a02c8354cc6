#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

// Named notifications within the process. Observers are called on the posting
// thread, outside the centre's lock.
class NotificationCenter {
 public:
  using Observer = std::function<void(const void* sender)>;

  static NotificationCenter& defaultCenter();

  // Returns a token for removeObserver.
  std::uint64_t addObserverForName(const std::string& name, Observer observer);
  void removeObserver(std::uint64_t token);
  void postNotificationName(const std::string& name, const void* sender);

 private:
  std::mutex mutex_;
  std::uint64_t next_ = 1;
  std::map<std::uint64_t, std::pair<std::string, Observer>> observers_;
};
