#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/PlatformError.h"
#include "Platform/URLRequest.h"
#include "Platform/URLResponse.h"

class URLSession;
struct CurlTransfer;

// One exchange of a session. It starts suspended; resume() sends it. It reports
// exactly once, on the session's delegate queue: to its completion handler when it
// has one, then to the session's delegate. cancel() ends it with error -999.
class URLSessionTask : public std::enable_shared_from_this<URLSessionTask> {
 public:
  enum class State { kRunning, kSuspended, kCanceling, kCompleted };
  enum class Kind { kData, kUploadFromFile, kDownload };
  // data: the whole answer; for a download task, the path of the downloaded file,
  // which is removed once the handler returns.
  using Completion =
      std::function<void(const std::string& data, const std::optional<URLResponse>& response,
                         const std::optional<PlatformError>& error)>;

  URLSessionTask(std::shared_ptr<URLSession> session, Kind kind, URLRequest request,
                 Completion completion);
  ~URLSessionTask();
  URLSessionTask(const URLSessionTask&) = delete;
  URLSessionTask& operator=(const URLSessionTask&) = delete;

  void resume();
  void suspend();
  void cancel();

  State state() const;
  std::uint64_t taskIdentifier() const { return identifier_; }
  std::string taskDescription() const;
  void setTaskDescription(std::string description);
  std::optional<URLResponse> response() const;
  // Tests: the tasks that exist now. The engine and the session's queue let a
  // task go once it has reported, so after every exchange has ended this is
  // back where it was.
  static std::size_t liveInstances();
  const URLRequest& originalRequest() const { return request_; }
  // Whether the transfer is paused because its delegate has not yet taken the
  // data already received.
  bool isWaitingForDelegate() const { return heldBack_.load(); }

 private:
  friend class CurlEngine;
  friend struct CurlCallbacks;
  friend class URLSession;

  std::shared_ptr<URLSession> session_;
  const Kind kind_;
  const URLRequest request_;
  Completion completion_;
  const std::uint64_t identifier_;
  std::string uploadFilePath_;  // Kind::kUploadFromFile

  mutable std::mutex mutex_;  // guards the members below
  State state_ = State::kSuspended;
  bool started_ = false;
  std::string description_;
  std::optional<URLResponse> response_;

  // Bytes handed to the delegate's queue and not yet taken by it, and whether the
  // engine has paused the transfer until the delegate catches up.
  std::atomic<std::size_t> undelivered_{0};
  std::atomic<bool> heldBack_{false};

  // What the engine keeps while the transfer runs; engine thread only.
  std::unique_ptr<CurlTransfer> transfer_;
};
