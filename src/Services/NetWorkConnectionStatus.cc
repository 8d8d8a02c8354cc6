#include "Services/NetWorkConnectionStatus.h"

#include <netinet/in.h>

#include "Services/Reachability/Reachability.h"

bool NetWorkConnectionStatus::ConectionStatus() {
  ReachabilityTarget zero;
  auto* in = reinterpret_cast<sockaddr_in*>(&zero.address);
  in->sin_family = AF_INET;
  std::optional<std::uint32_t> flags = Reachability::flagsSource()->flags(zero);
  if (!flags) return false;
  if ((*flags & Reachability::kReachable) == 0) return false;
  bool required = (*flags & Reachability::kConnectionRequired) != 0;
  bool automatic =
      (*flags & (Reachability::kConnectionOnDemand | Reachability::kConnectionOnTraffic)) != 0;
  bool intervention = (*flags & Reachability::kInterventionRequired) != 0;
  if (required && automatic && !intervention) return true;
  return !required || (*flags & Reachability::kIsDirect) != 0;
}
