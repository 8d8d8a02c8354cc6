#pragma once

#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Platform/Scheduler.h"

// The process's queues:
//  - the global queue: one shared thread pool for background work, timers and
//    passes (dispatchAsync / dispatchAfter);
//  - the main operation queue: one serial executor on a thread of its own, the
//    delegate queue of network sessions and of every server completion;
//  - private serial queues: strands on the pool (makeSerialQueue).
// Every piece of work runs under a guard: an exception that escapes it is logged
// and dropped, so that no work item can end the process.
class DispatchQueues : public Scheduler {
 public:
  // A private serial queue: its works run one at a time, in order, on the pool.
  class SerialQueue {
   public:
    // Whether the caller runs on this queue.
    bool isCurrent() const;
    // The name it was made with ("" when none).
    const std::string& label() const { return label_; }

   private:
    friend class DispatchQueues;
    struct Strand;
    std::shared_ptr<Strand> strand_;
    std::string label_;
  };

  // The process-wide queues, started on first use and never stopped.
  static DispatchQueues& shared();

  explicit DispatchQueues(std::size_t poolThreads);
  ~DispatchQueues() override;
  DispatchQueues(const DispatchQueues&) = delete;
  DispatchQueues& operator=(const DispatchQueues&) = delete;

  void dispatchAsync(Work work) override;
  void dispatchAfter(std::chrono::nanoseconds delay, Work work) override;

  // Runs `work` on the main operation queue, in submission order, one at a time.
  void dispatchMain(Work work);
  bool isMainQueueThread() const { return std::this_thread::get_id() == mainThreadId_; }

  // Runs `work` on `queue` after every earlier work of that queue.
  static void dispatchSerial(const SerialQueue& queue, Work work);
  // A new serial queue, named `label` for whoever looks at it.
  SerialQueue makeSerialQueue(std::string label = {});
  // The private serial queue the caller runs on, if any.
  static std::optional<SerialQueue> currentSerialQueue();

  // The guard every work item runs under.
  static void runGuarded(const Work& work);

 private:
  struct Executors;
  std::unique_ptr<Executors> executors_;
  std::thread mainThread_;
  std::thread::id mainThreadId_;
};
