#pragma once

#include <functional>
#include <thread>

// Calls `onChange` on a thread of its own whenever the kernel reports a change of
// routes, addresses or links (rtnetlink multicast groups).
class NetlinkRouteWatcher {
 public:
  explicit NetlinkRouteWatcher(std::function<void()> onChange);
  ~NetlinkRouteWatcher();
  NetlinkRouteWatcher(const NetlinkRouteWatcher&) = delete;
  NetlinkRouteWatcher& operator=(const NetlinkRouteWatcher&) = delete;

  // False when the netlink socket could not be opened; no change is then reported.
  bool isWatching() const { return socket_ >= 0; }

 private:
  void run();

  std::function<void()> onChange_;
  int socket_ = -1;
  int stopPipe_[2] = {-1, -1};
  std::thread thread_;
};
