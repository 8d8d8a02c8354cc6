#pragma once

#include <cstddef>
#include <memory>
#include <mutex>

#include "Platform/OperationQueue.h"
#include "Platform/URLConnectionDelegate.h"
#include "Platform/URLRequest.h"
#include "Platform/URLSession.h"

// The older, connection-style exchange: one request, its delegate told of the
// answer's pieces and of its end. While it loads, the connection keeps itself and
// its delegate alive; both are let go once it has reported.
class URLConnection : public URLSessionDelegate,
                      public std::enable_shared_from_this<URLConnection> {
 public:
  static std::shared_ptr<URLConnection> create(URLRequest request,
                                               std::shared_ptr<URLConnectionDelegate> delegate,
                                               bool startImmediately);
  ~URLConnection() override;
  URLConnection(const URLConnection&) = delete;
  URLConnection& operator=(const URLConnection&) = delete;
  // Tests: the connections that exist now. A connection keeps itself only while
  // it loads, so after every exchange has ended this is back where it was.
  static std::size_t liveInstances();

  void start();
  void cancel();

  void didReceiveData(URLSessionTask& task, const std::string& data) override;
  void didSendBodyData(URLSessionTask& task, std::int64_t bytesSent, std::int64_t totalBytesSent,
                       std::int64_t totalBytesExpectedToSend) override;
  void didCompleteWithError(URLSessionTask& task,
                            const std::optional<PlatformError>& error) override;

 protected:
  URLConnection(URLRequest request, std::shared_ptr<URLConnectionDelegate> delegate);

 private:
  URLRequest request_;
  std::shared_ptr<OperationQueue> queue_ = OperationQueue::create();
  mutable std::mutex mutex_;  // guards the members below
  std::shared_ptr<URLConnectionDelegate> delegate_;
  std::shared_ptr<URLConnection> self_;  // set while loading
  std::shared_ptr<URLSessionTask> task_;
};
