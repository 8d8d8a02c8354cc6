#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/NetlinkRouteWatcher.h"
#include "Platform/ReachabilityFlagsSource.h"

// Whether the network can be reached, for a host name or an address. The
// internet test watches the zero address: is there any route out at all. The
// server's host is never contacted.
class Reachability : public std::enable_shared_from_this<Reachability> {
 public:
  // Reachability flags.
  static constexpr std::uint32_t kReachable = 2;
  static constexpr std::uint32_t kConnectionRequired = 4;
  static constexpr std::uint32_t kConnectionOnTraffic = 8;
  static constexpr std::uint32_t kInterventionRequired = 16;
  static constexpr std::uint32_t kConnectionOnDemand = 32;
  static constexpr std::uint32_t kIsDirect = 0x20000;
  // Network status values.
  static constexpr int kNotReachable = 0;
  static constexpr int kReachableViaNetwork = 1;

  static constexpr const char* kNetworkReachabilityChangedNotification =
      "kNetworkReachabilityChangedNotification";

  // nullptr when the target cannot be watched (an empty name, an address that is
  // neither IPv4 nor IPv6).
  static std::shared_ptr<Reachability> reachabilityWithHostName(const std::string& hostName);
  static std::shared_ptr<Reachability> reachabilityWithAddress(const sockaddr* address);
  // The IPv4 zero address 0.0.0.0.
  static std::shared_ptr<Reachability> reachabilityForInternetConnection();
  // The link-local network 169.254.0.0, with the local-network rule.
  static std::shared_ptr<Reachability> reachabilityForLocalWiFi();

  // Whether the internet connection's status is anything but not reachable.
  static bool isReachable();

  ~Reachability();

  // Posts kNetworkReachabilityChangedNotification, with this object as sender, on
  // the default centre whenever routes change. True when the watch is in place.
  bool startNotifier();
  void stopNotifier();

  int currentReachabilityStatus() const;
  bool connectionRequired() const;
  int networkStatusForFlags(std::uint32_t flags) const;
  int localWiFiStatusForFlags(std::uint32_t flags) const;

  // Where every flags question goes: the environment's source, else the routing
  // table.
  static std::shared_ptr<ReachabilityFlagsSource> flagsSource();

 private:
  explicit Reachability(std::optional<ReachabilityTarget> target)
      : reachabilityRef_(std::move(target)) {}
  std::optional<std::uint32_t> readFlags() const;

  std::optional<ReachabilityTarget> reachabilityRef_;
  bool localWiFiRef_ = false;
  std::mutex notifierMutex_;
  std::unique_ptr<NetlinkRouteWatcher> notifier_;
};
