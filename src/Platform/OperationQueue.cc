#include "Platform/OperationQueue.h"

#include <algorithm>

namespace {
std::atomic<std::size_t> gLiveQueues{0};
}  // namespace

OperationQueue::OperationQueue(DispatchQueues& queues) : strand_(queues.makeSerialQueue()) {
  gLiveQueues.fetch_add(1, std::memory_order_relaxed);
}

OperationQueue::~OperationQueue() { gLiveQueues.fetch_sub(1, std::memory_order_relaxed); }

std::size_t OperationQueue::liveInstances() { return gLiveQueues.load(std::memory_order_relaxed); }

std::shared_ptr<OperationQueue> OperationQueue::create(DispatchQueues& queues) {
  return std::shared_ptr<OperationQueue>(new OperationQueue(queues));
}

std::shared_ptr<OperationQueue::Operation> OperationQueue::addOperationWithBlock(
    Scheduler::Work work) {
  std::shared_ptr<Operation> operation(new Operation(std::move(work)));
  {
    std::lock_guard lock(mutex_);
    operations_.push_back(operation);
  }
  DispatchQueues::dispatchSerial(strand_, [self = shared_from_this(), operation] {
    if (!operation->isCancelled()) DispatchQueues::runGuarded(operation->work_);
    operation->work_ = nullptr;  // releases what the work captured
    std::lock_guard lock(self->mutex_);
    self->operations_.erase(
        std::remove(self->operations_.begin(), self->operations_.end(), operation),
        self->operations_.end());
  });
  return operation;
}

std::vector<std::shared_ptr<OperationQueue::Operation>> OperationQueue::operations() const {
  std::lock_guard lock(mutex_);
  return operations_;
}

bool OperationQueue::isCurrent() const { return strand_.isCurrent(); }
