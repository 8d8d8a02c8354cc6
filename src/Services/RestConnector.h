#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Platform/URLSession.h"
#include "Services/ConnectorResult.h"
#include "Services/ConnectorStatus.h"

// The transport of every server operation on current systems: one connector per
// exchange, POSTing below the server's base URL on a URL session whose delegate
// queue is the main operation queue. Every start first asks whether the network is
// reachable; without it the handler gets status 1 at once, on the caller's thread,
// and no task is made. An encoding failure is also reported at once (status 4).
//
// kept: the session set-up used by each exchange is crosswise (the JSON exchange
// runs on the download set-up, the raw-answer exchange on the data set-up); the
// server has only ever seen requests made so. The progress block is stored and never called.
class RestConnector : public URLSessionDelegate,
                      public std::enable_shared_from_this<RestConnector> {
 public:
  using Params = nlohmann::ordered_json;
  using Progress = std::function<void(double)>;
  using Finished = std::function<void(const ConnectorResult& result, int status)>;
  // The raw-answer exchange: the response, then the bytes on success or the error
  // on failure (kept: one overloaded object, as its callers read it), then the
  // status.
  using FinishedWithResponse = std::function<void(const std::optional<URLResponse>& response,
                                                  const ConnectorResult& result, int status)>;

  static std::shared_ptr<RestConnector> create();

  void configSessionForData();
  void configSessionForUpload();
  void configSessionForDownload();

  // The base URL and `path` joined as they are; nullopt when that is no URL.
  static std::optional<std::string> getAbsoluteURL(const std::string& path);

  // JSON body up, JSON answer down: (object, 0), (error, 2), (error, 4), (error, 5),
  // (nothing, 1); nothing at all after platform error -1.
  void startAsyncTask(const std::string& path, const Params& params, Progress progress,
                      Finished finished);
  // JSON body up, the answer's bytes down, not decoded.
  void startAsyncDownloadWithStreamRequest(const std::string& path, const Params& params,
                                           Progress progress, FinishedWithResponse finished);
  // GET of an absolute URL: (bytes, 0) or (error, 2).
  void startAsyncDownload(const std::string& url, Progress progress, Finished finished);
  // Uploads the file named by "FilePath" (server form) with its routing headers,
  // through a copy in the home directory that is removed on success only.
  void startAsyncUploadWithStreamRequest(const std::string& path, const Params& params,
                                         Progress progress, Finished finished);
  // Prepares a JSON request and never sends it.
  void startAsyncUpload(const std::string& path, const Params& params, Progress progress,
                        Finished finished);

  // 6 or 7 (no task).
  int resume();
  // Resumes the task as well (it does not suspend it): 8, or 9 without a task.
  int pause();
  // Cancels the task: 11, or 10 without a task.
  int close();

  // The JSON request both connectors send: POST of `body` to `path` below the
  // base URL, with "Content-Length", "Content-Type" "application/json" and the
  // 60-second time-out.
  static URLRequest jsonRequest(const std::string& path, std::string body);
  // Reports a JSON exchange's answer to `finished` as both connectors do: nothing
  // after platform error -1, (error, 2), (error, 5) or (object, 0); with its log lines.
  static void reportJsonAnswer(const std::string& data, const std::optional<PlatformError>& error,
                               const Finished& finished);

  std::shared_ptr<URLSession> session() const;
  std::shared_ptr<URLSessionTask> sessionTask() const;

  void didCompleteWithError(URLSessionTask& task,
                            const std::optional<PlatformError>& error) override;

 private:
  RestConnector() = default;
  void replaceSession(URLSessionConfiguration configuration);
  // Whether the network is reachable; if so, stores `progress` for the exchange.
  bool prepare(Progress progress);
  // The encoded and logged JSON request; nullopt after `encodingFailed` was told.
  static std::optional<URLRequest> encodedRequest(
      const std::string& path, const Params& params, bool logAsJsonString,
      const std::function<void(const PlatformError&)>& encodingFailed);
  void setTask(std::shared_ptr<URLSessionTask> task);

  mutable std::mutex mutex_;  // guards the members below
  std::shared_ptr<URLSession> session_;
  std::shared_ptr<URLSessionTask> sessionTask_;
  Progress progressHandler_;
};
