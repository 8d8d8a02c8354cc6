#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "Platform/Scheduler.h"
#include "Platform/URLSessionConfiguration.h"
#include "Platform/URLSessionDelegate.h"
#include "Platform/URLSessionTask.h"

// A set of tasks sharing one configuration, one delegate and one delegate queue.
// Tasks keep their session alive while they run; a session holds its delegate
// weakly, so nothing outlives the exchange that needs it. All transfers run on
// one libcurl engine thread.
class URLSession : public std::enable_shared_from_this<URLSession> {
 public:
  // Where callbacks run, e.g. the main operation queue.
  using DelegateQueue = std::function<void(Scheduler::Work)>;

  static std::shared_ptr<URLSession> sessionWithConfiguration(
      URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate,
      DelegateQueue delegateQueue);

  // A session whose callbacks run on a serial queue of its own, as the platform
  // gives a session made without a delegate queue.
  static std::shared_ptr<URLSession> sessionWithConfiguration(
      URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate);

  ~URLSession();
  URLSession(const URLSession&) = delete;
  URLSession& operator=(const URLSession&) = delete;
  // Tests: the sessions that exist now. Each is let go once its last task has
  // reported, so after every exchange has ended this is back where it was.
  static std::size_t liveInstances();

  const URLSessionConfiguration& configuration() const { return configuration_; }
  std::shared_ptr<URLSessionDelegate> delegate() const { return delegate_.lock(); }
  void deliver(Scheduler::Work work) const { delegateQueue_(std::move(work)); }

  // A task whose whole answer goes to `completion`.
  std::shared_ptr<URLSessionTask> dataTaskWithRequest(URLRequest request,
                                                      URLSessionTask::Completion completion);
  // A task whose answer arrives in pieces through the delegate.
  std::shared_ptr<URLSessionTask> dataTaskWithRequest(URLRequest request);
  // Sends the file at `fromFile` as the body (with its length).
  std::shared_ptr<URLSessionTask> uploadTaskWithRequest(URLRequest request,
                                                        const std::string& fromFile,
                                                        URLSessionTask::Completion completion);
  // Sends the request's body stream chunked; reports through the delegate.
  std::shared_ptr<URLSessionTask> uploadTaskWithStreamedRequest(URLRequest request);
  // Downloads `url` (GET) into a temporary file handed to `completion`.
  std::shared_ptr<URLSessionTask> downloadTaskWithURL(const std::string& url,
                                                      URLSessionTask::Completion completion);

 private:
  URLSession(URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate,
             DelegateQueue delegateQueue);

  URLSessionConfiguration configuration_;
  std::weak_ptr<URLSessionDelegate> delegate_;
  DelegateQueue delegateQueue_;
};
