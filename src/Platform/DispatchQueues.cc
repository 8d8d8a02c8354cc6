#include "Platform/DispatchQueues.h"

#include <utility>

#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <exception>

#include "Platform/Log.h"

struct DispatchQueues::Executors {
  explicit Executors(std::size_t poolThreads)
      : pool(poolThreads), mainWork(asio::make_work_guard(main)) {}
  asio::thread_pool pool;
  asio::io_context main;
  asio::executor_work_guard<asio::io_context::executor_type> mainWork;
};

struct DispatchQueues::SerialQueue::Strand {
  asio::strand<asio::thread_pool::executor_type> strand;
};

bool DispatchQueues::SerialQueue::isCurrent() const {
  return strand_ && strand_->strand.running_in_this_thread();
}

DispatchQueues& DispatchQueues::shared() {
  // Never destroyed: queued work may still run while the process exits.
  static auto* queues = new DispatchQueues(std::max(4U, std::thread::hardware_concurrency()));
  return *queues;
}

DispatchQueues::DispatchQueues(std::size_t poolThreads)
    : executors_(std::make_unique<Executors>(poolThreads)) {
  mainThread_ = std::thread([this] { executors_->main.run(); });
  mainThreadId_ = mainThread_.get_id();
}

DispatchQueues::~DispatchQueues() {
  executors_->mainWork.reset();
  executors_->main.stop();
  if (mainThread_.joinable()) mainThread_.join();
  executors_->pool.stop();
  executors_->pool.join();
}

void DispatchQueues::runGuarded(const Work& work) {
  try {
    work();
  } catch (const std::exception& e) {
    Log::printf("Dropped an exception that escaped queued work: %s", e.what());
  } catch (...) {
    Log::line("Dropped an exception that escaped queued work");
  }
}

void DispatchQueues::dispatchAsync(Work work) {
  asio::post(executors_->pool, [work = std::move(work)] { runGuarded(work); });
}

void DispatchQueues::dispatchAfter(std::chrono::nanoseconds delay, Work work) {
  auto timer = std::make_shared<asio::steady_timer>(executors_->pool, delay);
  timer->async_wait([timer, work = std::move(work)](const asio::error_code& error) {
    if (!error) runGuarded(work);
  });
}

void DispatchQueues::dispatchMain(Work work) {
  asio::post(executors_->main, [work = std::move(work)] { runGuarded(work); });
}

namespace {
// The serial queue whose work the thread runs, while it runs it.
thread_local const DispatchQueues::SerialQueue* runningQueue = nullptr;
}  // namespace

void DispatchQueues::dispatchSerial(const SerialQueue& queue, Work work) {
  asio::post(queue.strand_->strand, [queue, work = std::move(work)] {
    const SerialQueue* outer = std::exchange(runningQueue, &queue);
    runGuarded(work);
    runningQueue = outer;
  });
}

std::optional<DispatchQueues::SerialQueue> DispatchQueues::currentSerialQueue() {
  if (runningQueue == nullptr) return std::nullopt;
  return *runningQueue;
}

DispatchQueues::SerialQueue DispatchQueues::makeSerialQueue(std::string label) {
  SerialQueue queue;
  queue.strand_ = std::make_shared<SerialQueue::Strand>(
      SerialQueue::Strand{asio::make_strand(executors_->pool.get_executor())});
  queue.label_ = std::move(label);
  return queue;
}
