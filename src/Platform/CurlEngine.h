#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
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
  // the delegate's queue (beside the piece the delegate is handling); past it the
  // transfer pauses, and it goes on once fewer than kResumeBelow wait. A slow
  // delegate slows the transfer instead of filling memory.
  static constexpr std::size_t kMaximumUndelivered = 4U << 20U;
  static constexpr std::size_t kResumeBelow = 1U << 20U;
  // Data for a delegate is gathered and handed over in pieces of kDeliveryPiece,
  // never larger, so a delegate that logs each piece logs a GiB arriving at 1 MiB/s
  // or more in 1,024 lines. A piece goes sooner when nothing has arrived for
  // kDeliveryPause (the answer is slow or has stopped), or when its first byte
  // has waited kDeliveryLatency (an answer slower than a piece a second still
  // reaches its delegate every second); never while the transfer is held back
  // for its delegate, which has plenty to take then. The end of the answer hands
  // over what is left.
  static constexpr std::size_t kDeliveryPiece = 1U << 20U;
  static constexpr std::chrono::milliseconds kDeliveryPause{50};
  static constexpr std::chrono::milliseconds kDeliveryLatency{1000};
  // A body read through the engine (a stream or a file) is read in pieces of
  // kUploadPiece, libcurl's upload buffer (a stream's pieces are a few bytes
  // short: the buffer holds each chunk's framing too), and libcurl asks for the
  // next piece only once the last one has gone to the connection. A delegate
  // hears of the body's progress in coarse steps: one didSendBodyData when at
  // least kProgressStep bytes have gone since the last one, and one when the
  // whole body has gone, when anything is left to tell. A body of n bytes thus
  // makes at most n / kProgressStep + 1 calls, however fast it goes: a GiB at
  // most 342 (a streamed GiB makes 257, a step every fourth piece), and the
  // totals always end at n.
  static constexpr std::size_t kUploadPiece = 1U << 20U;
  static constexpr std::int64_t kProgressStep = 3 << 20;
  // Called by the delegate's queue as it takes `length` bytes of `task`'s data,
  // before it hands them to the delegate.
  void delivered(const std::shared_ptr<URLSessionTask>& task, std::size_t length);

  // A buffer for the next piece, empty and able to hold kDeliveryPiece bytes: one a
  // delegate has handed back when there is one. Mapping and unmapping a fresh
  // 1 MiB buffer for every piece cost the kernel more than writing the piece to
  // disk, and halved the download rate.
  std::string takePiece();
  // Keeps a piece's buffer for the next piece, while a transfer is in flight and
  // fewer than kSparePieces are kept; frees it otherwise. The last transfer's end
  // frees every one kept.
  void giveBackPiece(std::string piece);
  static constexpr std::size_t kSparePieces = kMaximumUndelivered / kDeliveryPiece + 2;

  // Tests: transfers that are in flight now.
  std::size_t activeTransfers();

 private:
  CurlEngine();
  void post(std::function<void()> command);
  void run();
  void begin(const std::shared_ptr<URLSessionTask>& task);
  void finish(const std::shared_ptr<URLSessionTask>& task, int curlCode);
  // Hands over the pieces that are due; how long until the next one is.
  std::chrono::milliseconds handOverDuePieces();
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
  std::mutex piecesMutex_;  // guards sparePieces_
  std::vector<std::string> sparePieces_;
  std::thread thread_;
};
