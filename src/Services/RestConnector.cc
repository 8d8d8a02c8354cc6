#include "Services/RestConnector.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "Platform/DispatchQueues.h"
#include "Platform/Environment.h"
#include "Platform/Log.h"
#include "Services/JsonBody.h"
#include "Services/Reachability/Reachability.h"
#include "Services/ServicesUtilities.h"

namespace {

URLSession::DelegateQueue mainOperationQueue() {
  return [](Scheduler::Work work) { DispatchQueues::shared().dispatchMain(std::move(work)); };
}

std::string lastPathComponent(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  std::size_t slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string homeDirectory() { return Environment::current()->homeFolder; }

// The JSON exchanges' time-out, 60 seconds unless a test has shortened it.
double timeout() { return Environment::current()->requestTimeout; }

// A request dictionary's value as header text; nullopt when absent.
std::optional<std::string> headerValue(const RestConnector::Params& params, const char* key) {
  auto it = params.find(key);
  if (it == params.end() || it->is_null()) return std::nullopt;
  return it->is_string() ? it->get<std::string>() : it->dump();
}

std::optional<std::string> readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

}  // namespace

std::shared_ptr<RestConnector> RestConnector::create() {
  return std::shared_ptr<RestConnector>(new RestConnector());
}

std::optional<std::string> RestConnector::getAbsoluteURL(const std::string& path) {
  std::string url = ServicesUtilities::baseURL() + path;
  if (!URLRequest::isValidURL(url)) return std::nullopt;
  return url;
}

void RestConnector::replaceSession(URLSessionConfiguration configuration) {
  auto session = URLSession::sessionWithConfiguration(std::move(configuration), weak_from_this(),
                                                      mainOperationQueue());
  std::lock_guard lock(mutex_);
  session_ = std::move(session);
}

void RestConnector::configSessionForData() {
  URLSessionConfiguration configuration = URLSessionConfiguration::defaultSessionConfiguration();
  configuration.HTTPAdditionalHeaders = {{"Accept", "application/json"},
                                         {"Content-Type", "application/json"}};
  configuration.allowsCellularAccess = true;
  configuration.timeoutIntervalForRequest = timeout();
  configuration.timeoutIntervalForResource = timeout();
  configuration.HTTPMaximumConnectionsPerHost = 1;
  replaceSession(std::move(configuration));
}

void RestConnector::configSessionForUpload() {
  URLSessionConfiguration configuration = URLSessionConfiguration::defaultSessionConfiguration();
  configuration.HTTPMaximumConnectionsPerHost = 1;
  replaceSession(std::move(configuration));
}

void RestConnector::configSessionForDownload() {
  URLSessionConfiguration configuration = URLSessionConfiguration::defaultSessionConfiguration();
  configuration.timeoutIntervalForRequest = timeout();
  configuration.timeoutIntervalForResource = timeout();
  replaceSession(std::move(configuration));
}

std::shared_ptr<URLSession> RestConnector::session() const {
  std::lock_guard lock(mutex_);
  return session_;
}

std::shared_ptr<URLSessionTask> RestConnector::sessionTask() const {
  std::lock_guard lock(mutex_);
  return sessionTask_;
}

void RestConnector::setTask(std::shared_ptr<URLSessionTask> task) {
  std::lock_guard lock(mutex_);
  sessionTask_ = std::move(task);
}

URLRequest RestConnector::jsonRequest(const std::string& path, std::string body) {
  URLRequest request;
  request.url = getAbsoluteURL(path).value_or("");
  request.timeoutInterval = timeout();
  request.setValueForHTTPHeaderField(std::to_string(body.size()), "Content-Length");
  request.addValueForHTTPHeaderField("application/json", "Content-Type");
  request.httpMethod = "POST";
  request.httpBody = std::move(body);
  return request;
}

std::optional<URLRequest> RestConnector::encodedRequest(
    const std::string& path, const Params& params, bool logAsJsonString,
    const std::function<void(const PlatformError&)>& encodingFailed) {
  auto encoded = JsonBody::encode(params);
  if (const auto* error = std::get_if<PlatformError>(&encoded)) {
    // kept: the body is logged before the failure is seen, as the text of no data.
    Log::line(logAsJsonString ? "Json String (null)" : "(null)");
    encodingFailed(*error);
    return std::nullopt;
  }
  std::string body = std::get<std::string>(std::move(encoded));
  if (logAsJsonString) {
    Log::printf("Json String %s", body.c_str());
  } else {
    Log::line(body);
  }
  return jsonRequest(path, std::move(body));
}

void RestConnector::reportJsonAnswer(const std::string& data,
                                     const std::optional<PlatformError>& error,
                                     const Finished& finished) {
  if (error) {
    Log::printf("error code ....%s", error->description().c_str());
    if (error->code() == -1) {
      // kept: the platform's "unknown" error reports nothing at all; the
      // caller's handler is never called.
      Log::line("error code at rest connector strt async task......");
      return;
    }
    finished(*error, ConnectorStatusNetworkError);
    Log::line("network error");
    return;
  }
  auto decoded = JsonBody::decode(data);
  if (auto* failure = std::get_if<PlatformError>(&decoded)) {
    Log::line("response (null)");
    finished(*failure, ConnectorStatusResponseDecodingFailed);
    return;
  }
  nlohmann::json object = std::get<nlohmann::json>(std::move(decoded));
  Log::line("response " + JsonBody::describe(object));
  finished(std::move(object), ConnectorStatusSuccess);
}

bool RestConnector::prepare(Progress progress) {
  if (!Reachability::isReachable()) return false;
  std::lock_guard lock(mutex_);
  progressHandler_ = std::move(progress);
  return true;
}

void RestConnector::startAsyncTask(const std::string& path, const Params& params, Progress progress,
                                   Finished finished) {
  if (!prepare(std::move(progress))) {
    finished(std::monostate(), ConnectorStatusNotReachable);
    return;
  }
  configSessionForDownload();
  auto request = encodedRequest(path, params, true, [&](const PlatformError& error) {
    finished(error, ConnectorStatusRequestEncodingFailed);
  });
  if (!request) return;
  auto task = session()->dataTaskWithRequest(
      std::move(*request),
      [self = shared_from_this(), finished](
          const std::string& data, const std::optional<URLResponse>& /*response*/,
          const std::optional<PlatformError>& error) { reportJsonAnswer(data, error, finished); });
  setTask(task);
  task->resume();
}

void RestConnector::startAsyncDownloadWithStreamRequest(const std::string& path,
                                                        const Params& params, Progress progress,
                                                        FinishedWithResponse finished) {
  if (!prepare(std::move(progress))) {
    finished(std::nullopt, std::monostate(), ConnectorStatusNotReachable);
    return;
  }
  configSessionForData();
  auto request = encodedRequest(path, params, false, [&](const PlatformError& error) {
    finished(std::nullopt, error, ConnectorStatusRequestEncodingFailed);
  });
  if (!request) return;
  auto task = session()->dataTaskWithRequest(
      std::move(*request), [self = shared_from_this(), finished](
                               const std::string& data, const std::optional<URLResponse>& response,
                               const std::optional<PlatformError>& error) {
        if (error) {
          finished(std::nullopt, *error, ConnectorStatusNetworkError);
        } else {
          finished(response, data, ConnectorStatusSuccess);
        }
      });
  setTask(task);
  task->resume();
}

void RestConnector::startAsyncDownload(const std::string& url, Progress progress,
                                       Finished finished) {
  if (!prepare(std::move(progress))) {
    finished(std::monostate(), ConnectorStatusNotReachable);
    return;
  }
  configSessionForDownload();
  auto task = session()->downloadTaskWithURL(
      url, [self = shared_from_this(), finished](const std::string& location,
                                                 const std::optional<URLResponse>& /*response*/,
                                                 const std::optional<PlatformError>& error) {
        if (error) {
          finished(*error, ConnectorStatusNetworkError);
          Log::printf("nework error.......%s", error->description().c_str());
          return;
        }
        finished(readWholeFile(location).value_or(""), ConnectorStatusSuccess);
      });
  setTask(task);
  task->resume();
}

void RestConnector::startAsyncUploadWithStreamRequest(const std::string& path, const Params& params,
                                                      Progress progress, Finished finished) {
  if (!prepare(std::move(progress))) {
    finished(std::monostate(), ConnectorStatusNotReachable);
    return;
  }
  configSessionForUpload();
  std::string url = getAbsoluteURL(path).value_or("");

  std::optional<std::string> filePath = headerValue(params, "FilePath");
  std::optional<std::string> transit = headerValue(params, "TransitDownloadPath");
  std::optional<std::string> requestId = headerValue(params, "FileRequestID");
  std::string localPath = ServicesUtilities::convertPathToMac(filePath.value_or(""));
  struct stat attributes {};
  (void)::stat(localPath.c_str(), &attributes);  // read as the upload always has; unused
  Log::printf("%s %s %s", localPath.c_str(), transit.value_or("(null)").c_str(),
              requestId.value_or("(null)").c_str());

  // The body is sent from a copy in the home directory.
  std::string copy = homeDirectory() + "/" + lastPathComponent(localPath);
  if (std::optional<std::string> bytes = readWholeFile(localPath)) {
    std::ofstream(copy, std::ios::binary | std::ios::trunc) << *bytes;
  }

  URLRequest request;
  request.url = url;
  request.timeoutInterval = timeout();
  request.httpMethod = "POST";
  request.setValueForHTTPHeaderField("application/octet-stream", "Content-Type");
  if (filePath) request.setValueForHTTPHeaderField(*filePath, "FilePath");
  if (transit) request.setValueForHTTPHeaderField(*transit, "TransitDownloadPath");
  if (requestId) request.setValueForHTTPHeaderField(*requestId, "FileRequestID");

  // A streamed-upload task is made and dropped unstarted, as it always has been.
  (void)session()->uploadTaskWithStreamedRequest(request);
  auto task = session()->uploadTaskWithRequest(
      request, copy,
      [self = shared_from_this(), finished, copy](const std::string& data,
                                                  const std::optional<URLResponse>& /*response*/,
                                                  const std::optional<PlatformError>& error) {
        if (error) {
          finished(*error, ConnectorStatusNetworkError);  // the copy stays
          return;
        }
        auto decoded = JsonBody::decode(data);
        ::unlink(copy.c_str());
        if (auto* object = std::get_if<nlohmann::json>(&decoded)) {
          finished(std::move(*object), ConnectorStatusSuccess);
        } else {
          finished(std::monostate(), ConnectorStatusSuccess);
        }
      });
  task->setTaskDescription(lastPathComponent(localPath));
  setTask(task);
  task->resume();
}

void RestConnector::startAsyncUpload(const std::string& path, const Params& params,
                                     Progress progress, Finished finished) {
  if (!prepare(std::move(progress))) {
    finished(std::monostate(), ConnectorStatusNotReachable);
    return;
  }
  configSessionForDownload();
  auto encoded = JsonBody::encode(params);
  if (const auto* error = std::get_if<PlatformError>(&encoded)) {
    Log::line("Json String (null)");  // kept: as in the JSON exchange
    finished(*error, ConnectorStatusRequestEncodingFailed);
    return;
  }
  const std::string& body = std::get<std::string>(encoded);
  Log::printf("Json String %s", body.c_str());
  std::optional<std::string> url = getAbsoluteURL(path);
  Log::printf("url is........%s", url.value_or("(null)").c_str());
  // The request is prepared and never sent: no task is made and nothing reports.
  URLRequest request;
  request.url = url.value_or("");
  request.setValueForHTTPHeaderField(std::to_string(body.size()), "Content-Length");
  request.httpMethod = "POST";
  request.httpBody = body;
}

int RestConnector::resume() {
  std::shared_ptr<URLSessionTask> task = sessionTask();
  if (!task) return ConnectorStatusResumeNoTask;
  task->resume();
  return ConnectorStatusResumed;
}

int RestConnector::pause() {
  std::shared_ptr<URLSessionTask> task = sessionTask();
  if (!task) return ConnectorStatusPauseNoTask;
  task->resume();  // kept: pausing has always resumed the task
  return ConnectorStatusPaused;
}

int RestConnector::close() {
  std::shared_ptr<URLSessionTask> task = sessionTask();
  if (!task) return ConnectorStatusCloseNoTask;
  task->cancel();
  return ConnectorStatusClosed;
}

void RestConnector::didCompleteWithError(URLSessionTask& task,
                                         const std::optional<PlatformError>& error) {
  std::optional<URLResponse> response = task.response();
  Log::printf(".........%s", response ? response->description().c_str() : "(null)");
  Log::printf("error ............%s", error ? error->description().c_str() : "(null)");
}
