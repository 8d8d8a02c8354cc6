#include "Services/Reachability/Reachability.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <stdexcept>

#include "Platform/DispatchQueues.h"
#include "Platform/Environment.h"
#include "Platform/NetlinkRoutes.h"
#include "Platform/NotificationCenter.h"

namespace {

// Never destroyed: questions may still come from other threads while the process exits.
const std::shared_ptr<ReachabilityFlagsSource>& routingTable() {
  static auto* routes =
      new std::shared_ptr<ReachabilityFlagsSource>(std::make_shared<NetlinkRoutes>());
  return *routes;
}

// Kept for its call sites; prints nothing.
void PrintReachabilityFlags(std::uint32_t /*flags*/, const char* /*comment*/) {}

}  // namespace

std::shared_ptr<ReachabilityFlagsSource> Reachability::flagsSource() {
  std::shared_ptr<ReachabilityFlagsSource> replaced = Environment::current()->reachabilityFlags;
  return replaced ? replaced : routingTable();
}

std::shared_ptr<Reachability> Reachability::reachabilityWithHostName(const std::string& hostName) {
  if (hostName.empty()) return nullptr;
  ReachabilityTarget target;
  target.hostName = hostName;
  return std::shared_ptr<Reachability>(new Reachability(target));
}

std::shared_ptr<Reachability> Reachability::reachabilityWithAddress(const sockaddr* address) {
  if (address == nullptr) return nullptr;
  ReachabilityTarget target;
  if (address->sa_family == AF_INET) {
    std::memcpy(&target.address, address, sizeof(sockaddr_in));
  } else if (address->sa_family == AF_INET6) {
    std::memcpy(&target.address, address, sizeof(sockaddr_in6));
  } else {
    return nullptr;
  }
  return std::shared_ptr<Reachability>(new Reachability(target));
}

std::shared_ptr<Reachability> Reachability::reachabilityForInternetConnection() {
  sockaddr_in zero{};
  zero.sin_family = AF_INET;
  return reachabilityWithAddress(reinterpret_cast<const sockaddr*>(&zero));
}

std::shared_ptr<Reachability> Reachability::reachabilityForLocalWiFi() {
  sockaddr_in linkLocal{};
  linkLocal.sin_family = AF_INET;
  linkLocal.sin_addr.s_addr = htonl(0xA9FE0000);  // 169.254.0.0
  auto reachability = reachabilityWithAddress(reinterpret_cast<const sockaddr*>(&linkLocal));
  if (reachability) reachability->localWiFiRef_ = true;
  return reachability;
}

bool Reachability::isReachable() {
  auto reachability = reachabilityForInternetConnection();
  return reachability && reachability->currentReachabilityStatus() != kNotReachable;
}

Reachability::~Reachability() { stopNotifier(); }

bool Reachability::startNotifier() {
  std::lock_guard lock(notifierMutex_);
  if (!reachabilityRef_) return false;
  // The notification is posted where the notifier was started: on the main
  // operation queue, on a private serial queue, or else on the watcher's thread.
  std::function<void(Scheduler::Work)> post = [](const Scheduler::Work& work) {
    DispatchQueues::runGuarded(work);
  };
  if (DispatchQueues::shared().isMainQueueThread()) {
    post = [](Scheduler::Work work) { DispatchQueues::shared().dispatchMain(std::move(work)); };
  } else if (std::optional<DispatchQueues::SerialQueue> queue =
                 DispatchQueues::currentSerialQueue()) {
    post = [queue = *queue](Scheduler::Work work) {
      DispatchQueues::dispatchSerial(queue, std::move(work));
    };
  }
  // Only a change of the flags is told: routes that change nothing for the
  // target (another network's, an address added) are not.
  notifier_ = std::make_unique<NetlinkRouteWatcher>([this, post, last = readFlags()]() mutable {
    std::optional<std::uint32_t> flags = readFlags();
    if (flags == last) return;
    last = flags;
    // Told only while the object lives: the queue may run it after the watch ends.
    post([watched = weak_from_this()] {
      if (std::shared_ptr<Reachability> self = watched.lock()) {
        NotificationCenter::defaultCenter().postNotificationName(
            kNetworkReachabilityChangedNotification, self.get());
      }
    });
  });
  if (!notifier_->isWatching()) {
    notifier_.reset();
    return false;
  }
  return true;
}

void Reachability::stopNotifier() {
  std::unique_ptr<NetlinkRouteWatcher> stopped;
  {
    std::lock_guard lock(notifierMutex_);
    stopped = std::move(notifier_);
  }
}

std::optional<std::uint32_t> Reachability::readFlags() const {
  return flagsSource()->flags(*reachabilityRef_);
}

int Reachability::currentReachabilityStatus() const {
  if (!reachabilityRef_)
    throw std::logic_error("currentNetworkStatus called with NULL reachabilityRef");
  std::optional<std::uint32_t> flags = readFlags();
  if (!flags) return kNotReachable;
  return localWiFiRef_ ? localWiFiStatusForFlags(*flags) : networkStatusForFlags(*flags);
}

bool Reachability::connectionRequired() const {
  if (!reachabilityRef_)
    throw std::logic_error("connectionRequired called with NULL reachabilityRef");
  std::optional<std::uint32_t> flags = readFlags();
  return flags && (*flags & kConnectionRequired) != 0;
}

int Reachability::networkStatusForFlags(std::uint32_t flags) const {
  PrintReachabilityFlags(flags, "networkStatusForFlags");
  if ((flags & kReachable) == 0) return kNotReachable;
  int status = kNotReachable;
  if ((flags & kConnectionRequired) == 0) status = kReachableViaNetwork;
  if ((flags & (kConnectionOnDemand | kConnectionOnTraffic)) != 0 &&
      (flags & kInterventionRequired) == 0) {
    status = kReachableViaNetwork;
  }
  return status;
}

int Reachability::localWiFiStatusForFlags(std::uint32_t flags) const {
  PrintReachabilityFlags(flags, "localWiFiStatusForFlags");
  return (flags & kReachable) != 0 && (flags & kIsDirect) != 0 ? kReachableViaNetwork
                                                               : kNotReachable;
}
