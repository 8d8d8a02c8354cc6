#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include "Platform/ReachabilityFlagsSource.h"

// Reachability flags from the kernel's routing table (libnl-route):
//  - the zero address and host names are Reachable when a default route (IPv4 or
//    IPv6) leaves through an interface that is up, IsDirect when that route has no
//    gateway;
//  - any other address is Reachable when the longest route that covers it (an
//    address of this machine included) leaves through an interface that is up,
//    IsDirect when it has no gateway.
// The on-demand and intervention flags never arise on Linux.
class NetlinkRoutes : public ReachabilityFlagsSource {
 public:
  std::optional<std::uint32_t> flags(const ReachabilityTarget& target) override;
};
