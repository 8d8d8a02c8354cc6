#pragma once

#include <cstdint>
#include <optional>

#include "Platform/ReachabilityTarget.h"

// Answers the reachability flags of a target, as the platform's reachability
// service defines them (Reachable 2, ConnectionRequired 4, ConnectionOnTraffic 8,
// InterventionRequired 16, ConnectionOnDemand 32, IsDirect 0x20000); nullopt when
// they cannot be read. Tests substitute their own source.
class ReachabilityFlagsSource {
 public:
  virtual ~ReachabilityFlagsSource() = default;
  virtual std::optional<std::uint32_t> flags(const ReachabilityTarget& target) = 0;
};
