#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/OperationQueue.h"
#include "Platform/URLConnection.h"
#include "Services/RestConnector.h"

// The JSON transport of systems older than 10.10: the same request and statuses
// as RestConnector's JSON exchange, sent connection-style, with the handler run on
// a private queue made for the exchange (never the main operation queue). Not
// reachable and encoding failures are reported at once on the caller's thread.
class RestConnector_Old : public std::enable_shared_from_this<RestConnector_Old> {
 public:
  using Params = RestConnector::Params;
  using Progress = RestConnector::Progress;
  using Finished = RestConnector::Finished;

  static std::shared_ptr<RestConnector_Old> create();

  static std::optional<std::string> getAbsoluteURL(const std::string& path) {
    return RestConnector::getAbsoluteURL(path);
  }

  void startAsyncTask(const std::string& path, const Params& params, Progress progress,
                      Finished finished);

  // The queue of the last exchange; nullptr before the first.
  std::shared_ptr<OperationQueue> operationQueue() const;
  // The connection of an exchange. Declared for it, but the exchange goes through a
  // session and never sets it: always nullptr.
  std::shared_ptr<URLConnection> connection() const;

 private:
  RestConnector_Old() = default;

  mutable std::mutex mutex_;  // guards the members below
  std::shared_ptr<OperationQueue> operationQueue_;
  std::shared_ptr<URLConnection> connection_;
  Progress progressHandler_;
};
