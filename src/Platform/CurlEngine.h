#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class URLSessionTask;

// The one thread that drives every transfer through libcurl's multi interface.
// Other threads hand it commands; it runs them between polls.
class CurlEngine {
 public:
  static CurlEngine& shared();

  void start(std::shared_ptr<URLSessionTask> task);
  void setPaused(std::shared_ptr<URLSessionTask> task, bool paused);
  void cancel(std::shared_ptr<URLSessionTask> task);

  // The most a task with a completion handler keeps of its answer: past it the
  // task ends with "data length exceeds maximum" instead of growing in memory.
  static constexpr std::size_t kMaximumAnswerLength = 64U << 20U;

  // A task whose delegate takes its data has at most this many bytes waiting on
  // the delegate's queue; past it the transfer pauses, and it goes on once fewer
  // than kResumeBelow wait. A slow delegate slows the transfer instead of
  // filling memory.
  static constexpr std::size_t kMaximumUndelivered = 4U << 20U;
  static constexpr std::size_t kResumeBelow = 1U << 20U;
  // Data for a delegate is handed over in pieces of this size, or sooner when
  // what has arrived has waited kDeliveryDelay.
  static constexpr std::size_t kDeliveryPiece = 256U << 10U;
  static constexpr std::chrono::milliseconds kDeliveryDelay{50};
  // Called by the delegate's queue as it takes `length` bytes of `task`'s data.
  void delivered(const std::shared_ptr<URLSessionTask>& task, std::size_t length);

  // Tests: transfers that are in flight now.
  std::size_t activeTransfers();

 private:
  CurlEngine();
  void post(std::function<void()> command);
  void run();
  void begin(const std::shared_ptr<URLSessionTask>& task);
  void finish(const std::shared_ptr<URLSessionTask>& task, int curlCode);
  // Ends `task` and reports it on its session's delegate queue.
  void finishWithCode(const std::shared_ptr<URLSessionTask>& task, long code,
                      std::string description);

  void* multi_ = nullptr;  // the libcurl multi handle
  std::mutex mutex_;       // guards commands_
  std::vector<std::function<void()>> commands_;
  // Whether `task` may start now under its session's connections-per-host limit.
  bool withinHostLimit(const URLSessionTask& task) const;

  std::map<void*, std::shared_ptr<URLSessionTask>> active_;  // engine thread only, by easy handle
  std::vector<std::shared_ptr<URLSessionTask>> waiting_;     // engine thread only: over the limit
  std::atomic<std::size_t> activeCount_{0};
  std::thread thread_;
};
