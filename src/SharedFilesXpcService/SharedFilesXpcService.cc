#include "SharedFilesXpcService/SharedFilesXpcService.h"

#include "Platform/UserDefaults.h"

namespace {

std::atomic<std::chrono::nanoseconds::rep> gCyclePeriod{
    SharedFilesXpcService::kCyclePeriod.count()};

}  // namespace

std::chrono::nanoseconds SharedFilesXpcService::cyclePeriod() {
  return std::chrono::nanoseconds(gCyclePeriod.load(std::memory_order_relaxed));
}

void SharedFilesXpcService::setCyclePeriodForTesting(std::chrono::nanoseconds period) {
  gCyclePeriod.store(period.count(), std::memory_order_relaxed);
}

std::shared_ptr<SharedFilesXpcService> SharedFilesXpcService::create(Scheduler& scheduler) {
  return std::shared_ptr<SharedFilesXpcService>(new SharedFilesXpcService(scheduler));
}

SharedFilesXpcService::SharedFilesXpcService(Scheduler& scheduler) : scheduler_(scheduler) {}

void SharedFilesXpcService::SharedFile() {
  receiveLock_.store(false, std::memory_order_relaxed);
  sendLock_.store(false, std::memory_order_relaxed);
  startSharedFileToTransfer();
}

void SharedFilesXpcService::unLockService() {
  sendLock_.store(false, std::memory_order_relaxed);
  receiveLock_.store(false, std::memory_order_relaxed);
}

void SharedFilesXpcService::startSharedFileToTransfer() {
  setIAppsPrefs({});
  setIAppsPrefs(UserDefaults::persistentDomainForName("Quentara.Tallowbox"));

  if (!sendLock() && !receiveLock()) {
    sendLock_.store(true, std::memory_order_relaxed);
    receiveLock_.store(true, std::memory_order_relaxed);
    // Querying. The pending-work query for the snapshot's "computerIdKey" and
    // "userIdKey", whose completion clears the flags, arrives with the server
    // interface; until then the cycle stays in this state.
  }

  scheduler_.dispatchAfter(cyclePeriod(),
                           [self = shared_from_this()] { self->startSharedFileToTransfer(); });
}

void SharedFilesXpcService::SendFileNotify() { sendLock_.store(false, std::memory_order_relaxed); }

void SharedFilesXpcService::ReceiveFileNotify() {
  receiveLock_.store(false, std::memory_order_relaxed);
}

Value::Dictionary SharedFilesXpcService::iAppsPrefs() const {
  std::lock_guard lock(mutex_);
  return iAppsPrefs_;
}

void SharedFilesXpcService::setIAppsPrefs(Value::Dictionary prefs) {
  std::lock_guard lock(mutex_);
  iAppsPrefs_ = std::move(prefs);
}

Value::Array SharedFilesXpcService::sharedFilesDefaultsArray() const {
  std::lock_guard lock(mutex_);
  return sharedFilesDefaultsArray_;
}

void SharedFilesXpcService::setSharedFilesDefaultsArray(Value::Array array) {
  std::lock_guard lock(mutex_);
  sharedFilesDefaultsArray_ = std::move(array);
}
