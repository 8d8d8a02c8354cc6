#include "Platform/DispatchQueues.h"

#include <algorithm>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <exception>

#include "Platform/Log.h"

DispatchQueues& DispatchQueues::shared() {
  // Never destroyed: queued work may still run while the process exits.
  static auto* queues = new DispatchQueues(std::max(4U, std::thread::hardware_concurrency()));
  return *queues;
}

DispatchQueues::DispatchQueues(std::size_t poolThreads)
    : pool_(poolThreads), mainWork_(asio::make_work_guard(main_)) {
  mainThread_ = std::thread([this] { main_.run(); });
  mainThreadId_ = mainThread_.get_id();
}

DispatchQueues::~DispatchQueues() {
  mainWork_.reset();
  main_.stop();
  if (mainThread_.joinable()) mainThread_.join();
  pool_.stop();
  pool_.join();
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
  asio::post(pool_, [work = std::move(work)] { runGuarded(work); });
}

void DispatchQueues::dispatchAfter(std::chrono::nanoseconds delay, Work work) {
  auto timer = std::make_shared<asio::steady_timer>(pool_, delay);
  timer->async_wait([timer, work = std::move(work)](const asio::error_code& error) {
    if (!error) runGuarded(work);
  });
}

void DispatchQueues::dispatchMain(Work work) {
  asio::post(main_, [work = std::move(work)] { runGuarded(work); });
}

void DispatchQueues::dispatchSerial(const SerialQueue& queue, Work work) {
  asio::post(queue, [work = std::move(work)] { runGuarded(work); });
}

DispatchQueues::SerialQueue DispatchQueues::makeSerialQueue() { return asio::make_strand(pool_); }
