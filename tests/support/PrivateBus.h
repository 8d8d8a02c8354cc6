#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// A private D-Bus session bus (dbus-daemon) for one test, stopped on destruction.
class PrivateBus {
 public:
  explicit PrivateBus(const std::string& configFolder);
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& address() const { return address_; }
  // Sets DBUS_SESSION_BUS_ADDRESS for this process and the programs it starts.
  void makeSessionBus() const;

  // Calls SharedFile on the service with dbus-send, as the application does, on
  // the bus that `settings` ("NAME=value") name; whether it was answered.
  static bool callSharedFile(const std::vector<std::string>& settings);

 private:
  pid_t pid_ = -1;
  std::string address_;
};
