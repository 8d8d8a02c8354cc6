#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "Platform/DispatchQueues.h"

// A private serial queue of operations (a strand on the shared pool) that knows
// which operations it still holds, so that one can be cancelled before it runs.
class OperationQueue : public std::enable_shared_from_this<OperationQueue> {
 public:
  class Operation {
   public:
    void cancel() { cancelled_.store(true); }
    bool isCancelled() const { return cancelled_.load(); }

   private:
    friend class OperationQueue;
    explicit Operation(Scheduler::Work work) : work_(std::move(work)) {}
    Scheduler::Work work_;
    std::atomic<bool> cancelled_{false};
  };

  static std::shared_ptr<OperationQueue> create(DispatchQueues& queues = DispatchQueues::shared());

  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;
  // Tests: the queues that exist now. A session's own queue goes with the
  // session, a connection's with the connection.
  static std::size_t liveInstances();

  // Runs `work` after every earlier operation, unless it is cancelled first.
  std::shared_ptr<Operation> addOperationWithBlock(Scheduler::Work work);
  // The operations not yet finished (the running one included), in order.
  std::vector<std::shared_ptr<Operation>> operations() const;
  // Whether the caller runs on this queue.
  bool isCurrent() const;

 private:
  explicit OperationQueue(DispatchQueues& queues);

  DispatchQueues::SerialQueue strand_;
  mutable std::mutex mutex_;  // guards operations_
  std::vector<std::shared_ptr<Operation>> operations_;
};
