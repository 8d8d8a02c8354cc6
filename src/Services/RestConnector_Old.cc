#include "Services/RestConnector_Old.h"

#include "Platform/Log.h"
#include "Platform/URLSession.h"
#include "Services/JsonBody.h"
#include "Services/Reachability/Reachability.h"

std::shared_ptr<RestConnector_Old> RestConnector_Old::create() {
  return std::shared_ptr<RestConnector_Old>(new RestConnector_Old());
}

std::shared_ptr<OperationQueue> RestConnector_Old::operationQueue() const {
  std::lock_guard lock(mutex_);
  return operationQueue_;
}

std::shared_ptr<URLConnection> RestConnector_Old::connection() const {
  std::lock_guard lock(mutex_);
  return connection_;
}

void RestConnector_Old::startAsyncTask(const std::string& path, const Params& params,
                                       Progress progress, Finished finished) {
  if (!Reachability::isReachable()) {
    finished(std::monostate(), ConnectorStatusNotReachable);
    return;
  }
  auto encoded = JsonBody::encode(params);
  {
    std::lock_guard lock(mutex_);
    progressHandler_ = std::move(progress);
  }
  if (const auto* error = std::get_if<PlatformError>(&encoded)) {
    Log::line("Json String (null)");  // kept: logged before the failure is seen
    finished(*error, ConnectorStatusRequestEncodingFailed);
    return;
  }
  std::string body = std::get<std::string>(std::move(encoded));
  Log::printf("Json String %s", body.c_str());
  URLRequest request = RestConnector::jsonRequest(path, std::move(body));

  auto queue = OperationQueue::create();
  {
    std::lock_guard lock(mutex_);
    operationQueue_ = queue;
  }
  // Sent asynchronously with the handler on `queue`.
  auto session = URLSession::sessionWithConfiguration(
      URLSessionConfiguration::defaultSessionConfiguration(), {},
      [queue](Scheduler::Work work) { queue->addOperationWithBlock(std::move(work)); });
  auto task = session->dataTaskWithRequest(
      std::move(request),
      [self = shared_from_this(), queue, finished](const std::string& data,
                                                   const std::optional<URLResponse>& /*response*/,
                                                   const std::optional<PlatformError>& error) {
        RestConnector::reportJsonAnswer(data, error, finished);
        // Kept as the exchange's last act: the queue's last operation is cancelled.
        auto operations = queue->operations();
        if (!operations.empty()) operations.back()->cancel();
      });
  task->resume();
}
