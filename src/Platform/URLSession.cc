#include "Platform/URLSession.h"

#include <atomic>

#include "Platform/CurlEngine.h"
#include "Platform/CurlTransfer.h"
#include "Platform/OperationQueue.h"

namespace {
std::atomic<std::uint64_t> gNextTaskIdentifier{1};
std::atomic<std::size_t> gLiveTasks{0};
std::atomic<std::size_t> gLiveSessions{0};
}  // namespace

URLSessionTask::URLSessionTask(std::shared_ptr<URLSession> session, Kind kind, URLRequest request,
                               Completion completion)
    : session_(std::move(session)),
      kind_(kind),
      request_(std::move(request)),
      completion_(std::move(completion)),
      identifier_(gNextTaskIdentifier.fetch_add(1)) {
  gLiveTasks.fetch_add(1, std::memory_order_relaxed);
}

URLSessionTask::~URLSessionTask() { gLiveTasks.fetch_sub(1, std::memory_order_relaxed); }

std::size_t URLSessionTask::liveInstances() { return gLiveTasks.load(std::memory_order_relaxed); }

void URLSessionTask::resume() {
  {
    std::lock_guard lock(mutex_);
    if (state_ == State::kCompleted || state_ == State::kCanceling) return;
    state_ = State::kRunning;
    if (!started_) {
      started_ = true;
      CurlEngine::shared().start(shared_from_this());
      return;
    }
  }
  CurlEngine::shared().setPaused(shared_from_this(), false);
}

void URLSessionTask::suspend() {
  {
    std::lock_guard lock(mutex_);
    if (state_ != State::kRunning) return;
    state_ = State::kSuspended;
    if (!started_) return;
  }
  CurlEngine::shared().setPaused(shared_from_this(), true);
}

void URLSessionTask::cancel() {
  {
    std::lock_guard lock(mutex_);
    if (state_ == State::kCompleted || state_ == State::kCanceling) return;
    state_ = State::kCanceling;
  }
  CurlEngine::shared().cancel(shared_from_this());
}

URLSessionTask::State URLSessionTask::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

std::string URLSessionTask::taskDescription() const {
  std::lock_guard lock(mutex_);
  return description_;
}

void URLSessionTask::setTaskDescription(std::string description) {
  std::lock_guard lock(mutex_);
  description_ = std::move(description);
}

std::optional<URLResponse> URLSessionTask::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

std::shared_ptr<URLSession> URLSession::sessionWithConfiguration(
    URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate,
    DelegateQueue delegateQueue) {
  return std::shared_ptr<URLSession>(
      new URLSession(std::move(configuration), std::move(delegate), std::move(delegateQueue)));
}

std::shared_ptr<URLSession> URLSession::sessionWithConfiguration(
    URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate) {
  auto queue = OperationQueue::create();
  return sessionWithConfiguration(
      std::move(configuration), std::move(delegate),
      [queue](Scheduler::Work work) { queue->addOperationWithBlock(std::move(work)); });
}

URLSession::URLSession(URLSessionConfiguration configuration,
                       std::weak_ptr<URLSessionDelegate> delegate, DelegateQueue delegateQueue)
    : configuration_(std::move(configuration)),
      delegate_(std::move(delegate)),
      delegateQueue_(std::move(delegateQueue)) {
  gLiveSessions.fetch_add(1, std::memory_order_relaxed);
}

URLSession::~URLSession() { gLiveSessions.fetch_sub(1, std::memory_order_relaxed); }

std::size_t URLSession::liveInstances() { return gLiveSessions.load(std::memory_order_relaxed); }

std::shared_ptr<URLSessionTask> URLSession::dataTaskWithRequest(
    URLRequest request, URLSessionTask::Completion completion) {
  return std::make_shared<URLSessionTask>(shared_from_this(), URLSessionTask::Kind::kData,
                                          std::move(request), std::move(completion));
}

std::shared_ptr<URLSessionTask> URLSession::dataTaskWithRequest(URLRequest request) {
  return dataTaskWithRequest(std::move(request), nullptr);
}

std::shared_ptr<URLSessionTask> URLSession::uploadTaskWithRequest(
    URLRequest request, const std::string& fromFile, URLSessionTask::Completion completion) {
  auto task =
      std::make_shared<URLSessionTask>(shared_from_this(), URLSessionTask::Kind::kUploadFromFile,
                                       std::move(request), std::move(completion));
  task->uploadFilePath_ = fromFile;
  return task;
}

std::shared_ptr<URLSessionTask> URLSession::uploadTaskWithStreamedRequest(URLRequest request) {
  return dataTaskWithRequest(std::move(request), nullptr);
}

std::shared_ptr<URLSessionTask> URLSession::downloadTaskWithURL(
    const std::string& url, URLSessionTask::Completion completion) {
  URLRequest request;
  request.url = url;
  if (configuration_.timeoutIntervalForRequest) {
    request.timeoutInterval = *configuration_.timeoutIntervalForRequest;
  }
  return std::make_shared<URLSessionTask>(shared_from_this(), URLSessionTask::Kind::kDownload,
                                          std::move(request), std::move(completion));
}
