#include "Platform/URLConnection.h"

#include <atomic>

namespace {
std::atomic<std::size_t> gLiveConnections{0};
}  // namespace

std::shared_ptr<URLConnection> URLConnection::create(
    URLRequest request, std::shared_ptr<URLConnectionDelegate> delegate, bool startImmediately) {
  std::shared_ptr<URLConnection> connection(
      new URLConnection(std::move(request), std::move(delegate)));
  if (startImmediately) connection->start();
  return connection;
}

URLConnection::URLConnection(URLRequest request, std::shared_ptr<URLConnectionDelegate> delegate)
    : request_(std::move(request)), delegate_(std::move(delegate)) {
  gLiveConnections.fetch_add(1, std::memory_order_relaxed);
}

URLConnection::~URLConnection() { gLiveConnections.fetch_sub(1, std::memory_order_relaxed); }

std::size_t URLConnection::liveInstances() {
  return gLiveConnections.load(std::memory_order_relaxed);
}

void URLConnection::start() {
  auto session = URLSession::sessionWithConfiguration(
      URLSessionConfiguration::defaultSessionConfiguration(), weak_from_this(),
      [queue = queue_](Scheduler::Work work) { queue->addOperationWithBlock(std::move(work)); });
  std::shared_ptr<URLSessionTask> task;
  {
    std::lock_guard lock(mutex_);
    if (task_) return;
    task_ = task = session->dataTaskWithRequest(request_);
    self_ = shared_from_this();
  }
  task->resume();  // outside the lock: the engine may report at once
}

void URLConnection::cancel() {
  std::shared_ptr<URLSessionTask> task;
  {
    std::lock_guard lock(mutex_);
    task = task_;
  }
  if (task) task->cancel();
}

void URLConnection::didReceiveData(URLSessionTask& /*task*/, const std::string& data) {
  std::shared_ptr<URLConnectionDelegate> delegate;
  {
    std::lock_guard lock(mutex_);
    delegate = delegate_;
  }
  if (delegate) delegate->didReceiveData(*this, data);
}

void URLConnection::didSendBodyData(URLSessionTask& /*task*/, std::int64_t bytesSent,
                                    std::int64_t totalBytesSent,
                                    std::int64_t totalBytesExpectedToSend) {
  std::shared_ptr<URLConnectionDelegate> delegate;
  {
    std::lock_guard lock(mutex_);
    delegate = delegate_;
  }
  if (delegate)
    delegate->didSendBodyData(*this, bytesSent, totalBytesSent, totalBytesExpectedToSend);
}

void URLConnection::didCompleteWithError(URLSessionTask& /*task*/,
                                         const std::optional<PlatformError>& error) {
  std::shared_ptr<URLConnectionDelegate> delegate;
  std::shared_ptr<URLConnection> self;
  {
    std::lock_guard lock(mutex_);
    delegate = std::move(delegate_);
    self = std::move(self_);
  }
  // A cancelled connection tells its delegate nothing, as the platform's does not.
  if (!delegate || (error && error->code() == PlatformError::kCancelled)) return;
  if (error) {
    delegate->didFailWithError(*this, *error);
  } else {
    delegate->connectionDidFinishLoading(*this);
  }
}
