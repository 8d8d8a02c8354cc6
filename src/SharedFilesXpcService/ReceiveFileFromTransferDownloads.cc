// The downloads of the receive handler: a request for a file's bytes, each chunk
// appended to the partial file, and the file moved into place and acknowledged.
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Platform/DispatchQueues.h"
#include "Platform/Log.h"
#include "Platform/Readings.h"
#include "Platform/URLSession.h"
#include "Platform/ValueError.h"
#include "Services/DownloadConnection.h"
#include "Services/JsonBody.h"
#include "Services/NetWorkConnectionStatus.h"
#include "Services/Records/DeleteReceivedFileFromTransferResponseData.h"
#include "Services/Records/UpdateFileReceivedResponseData.h"
#include "Services/RestInterface.h"
#include "Services/ServicesUtilities.h"
#include "SharedFilesXpcService/ReceiveFileFromTransferHandler.h"

void ReceiveFileFromTransferHandler::saveStreamFile(const RecFileFromTransfer& file,
                                                    std::shared_ptr<Download> download) {
  RestConnector::Params body = RestConnector::Params::object();
  body["StrFullPath"] =
      "\\" + Readings::formatted(file.fromComputerId) + Readings::formatted(file.fullPath);
  body["Length"] = download->fileLength();
  auto encoded = JsonBody::encode(body);
  const std::string text =
      std::holds_alternative<std::string>(encoded) ? std::get<std::string>(encoded) : std::string();
  DispatchQueues::shared().dispatchAsync(
      [self = shared_from_this(), text, download = std::move(download)] {
        if (NetWorkConnectionStatus::ConectionStatus()) {
          self->startAsyncDownloadWithStreamRequest(
              ServicesUtilities::baseURL() + "MAC/SharedFiles.svc/GetFileStreamFromCloud", text,
              download);
          Log::line(
              "calling getfilefrom cloud service "
              "^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^");
        } else {
          Log::line("Connection Not available.. at saveStreamFile in RECEIEVEFILEFROMTRANSFER");
        }
      });
}

void ReceiveFileFromTransferHandler::saveUpdateReceiveFile(const RecFileFromTransfer& file,
                                                           std::shared_ptr<Download> download) {
  RestConnector::Params body = RestConnector::Params::object();
  auto set = [&](const char* key, const WireValue& value) {
    if (value) body[key] = *value;
  };
  set("StrFullPath", file.fullPath);
  set("SavedFileID", file.savedFileId);
  set("IsFile", file.isFile);
  set("ChangeType", file.changeType);
  set("FromCloud", file.fromCloud);
  body["Length"] = download->fileLength();
  auto encoded = JsonBody::encode(body);
  if (const auto* error = std::get_if<PlatformError>(&encoded)) {
    throw ValueError("the download's request cannot be written: " + error->localizedDescription());
  }
  const std::string text = std::get<std::string>(encoded);
  Log::line(text);
  if (NetWorkConnectionStatus::ConectionStatus()) {
    Log::line("Connection Available....");
    startAsyncDownloadWithStreamRequest(
        ServicesUtilities::baseURL() + "MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer", text,
        std::move(download));
    Log::line(
        "update receviedfilefrom transfer "
        "^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^");
  } else {
    Log::line("Connection Not available....");
  }
}

void ReceiveFileFromTransferHandler::updateReceivedCall(const RecFileFromTransfer& file) {
  UpdateFileReceivedQuery query;
  // The id goes out as text, as a format of it gives it: a number as its digits,
  // an absent id as "(null)"; a list or a dictionary as its JSON text.
  try {
    query.sharedFileTransferID = Readings::formatted(file.sharedFileTransferId);
  } catch (const ValueError&) {
    query.sharedFileTransferID = file.sharedFileTransferId->dump();
  }
  query.isFileExists = "true";
  RestInterface::asyncUpdateFileReceived(
      query, [](const OperationResult<UpdateFileReceivedResponseData>& /*result*/, int /*status*/) {
        Log::line("inside update File Received  service. chnages for 2&3 .................");
      });
}

void ReceiveFileFromTransferHandler::startAsyncDownloadWithStreamRequest(
    const std::string& url, const std::string& postData, std::shared_ptr<Download> download) {
  URLRequest request;
  request.url = url;
  request.timeoutInterval = 60;
  request.setValueForHTTPHeaderField("application/json", "Content-Type");
  request.httpMethod = "POST";
  request.httpBody = postData;
  // An error page is never a user's file.
  request.requiresSuccessfulStatus = true;
  if (ServicesUtilities::isLessThan10_10()) {
    auto connection = DownloadConnection::initWithRequest(request, shared_from_this(), false, "");
    {
      std::lock_guard lock(mutex_);
      running_[static_cast<const URLConnection*>(connection.get())] = std::move(download);
    }
    connection->start();
    return;
  }
  auto session =
      URLSession::sessionWithConfiguration(URLSessionConfiguration::defaultSessionConfiguration(),
                                           std::weak_ptr<URLSessionDelegate>(shared_from_this()));
  auto task = session->dataTaskWithRequest(request);
  {
    std::lock_guard lock(mutex_);
    running_[task.get()] = std::move(download);
  }
  task->resume();
}

std::shared_ptr<Download> ReceiveFileFromTransferHandler::running(const void* transfer, bool take) {
  std::lock_guard lock(mutex_);
  auto it = running_.find(transfer);
  if (it == running_.end()) return nullptr;
  std::shared_ptr<Download> download = it->second;
  if (take) running_.erase(it);
  return download;
}

bool ReceiveFileFromTransferHandler::chunkArrived(Download& download, const std::string& data) {
  // The partial file is opened again for each chunk, and the chunk written whole.
  std::string error;
  switch (download.append(data, error)) {
    case Download::Appended::kWritten:
      Log::printf("Bytes Written : %lu", static_cast<unsigned long>(data.size()));
      return true;
    case Download::Appended::kWriteFailed:
      Log::printf("Bytes Written : %lu", static_cast<unsigned long>(-1));
      Log::printf("Stream error: %s", error.c_str());
      return false;
    case Download::Appended::kDiscarded:
      break;
  }
  Log::printf("Discarded the partial file %s: someone else changed it",
              download.partialPath().c_str());
  return false;
}

void ReceiveFileFromTransferHandler::didReceiveData(URLSessionTask& task, const std::string& data) {
  std::shared_ptr<Download> download = running(&task);
  if (!download || download->hasFailed() || chunkArrived(*download, data)) return;
  task.suspend();
  task.cancel();
  notify();
}

void ReceiveFileFromTransferHandler::didReceiveData(URLConnection& connection,
                                                    const std::string& data) {
  std::shared_ptr<Download> download = running(&connection);
  if (!download || download->hasFailed() || chunkArrived(*download, data)) return;
  notify();
  // Nothing more of it can be written: the rest is not fetched.
  connection.cancel();
  if (auto ended = running(&connection, true)) ended->release();
}

void ReceiveFileFromTransferHandler::didCompleteWithError(
    URLSessionTask& task, const std::optional<PlatformError>& error) {
  std::shared_ptr<Download> download = running(&task, true);
  // A download whose chunk failed was cancelled; when its last bytes had already
  // arrived, the completion comes without an error but ends it all the same.
  std::optional<PlatformError> ending = error;
  if (!ending && download && download->hasFailed()) {
    ending.emplace(PlatformError::kURLErrorDomain, PlatformError::kCancelled, "cancelled");
  }
  if (ending) {
    const std::string description = task.taskDescription();
    Log::printf("task discription......%s", description.empty() ? "(null)" : description.c_str());
    failed(download, *ending);
    return;
  }
  finished(download);
}

void ReceiveFileFromTransferHandler::connectionDidFinishLoading(URLConnection& connection) {
  connection.cancel();
  finished(running(&connection, true));
}

void ReceiveFileFromTransferHandler::didFailWithError(URLConnection& connection,
                                                      const PlatformError& error) {
  failed(running(&connection, true), error);
  connection.cancel();
}

void ReceiveFileFromTransferHandler::finished(const std::shared_ptr<Download>& download) {
  reportFailures([&] {
    if (!download || download->hasFailed()) return;
    const bool cloud = download->source() == Download::Source::kCloud;
    if (cloud) Log::line("Download Finished");
    std::string error;
    // kept: a file whose name is taken stays in the download folder, and the
    // server is told all the same. Any other failure keeps the file from being
    // lost: it is not acknowledged, and a later cycle places it.
    if (download->place(error) == Download::Placed::kFailed) {
      Log::printf("Not placed, so not acknowledged: %s", error.c_str());
      download->release();
      notify();
      return;
    }
    if (cloud) {
      UpdateFileReceivedQuery query;
      query.sharedFileTransferID = download->sharedFileTransferID;
      query.isFileExists = "true";
      RestInterface::asyncUpdateFileReceived(
          query, [self = shared_from_this(), download](
                     const OperationResult<UpdateFileReceivedResponseData>& result, int status) {
            // Acknowledged: a reply already on its way may list the file still.
            status == 0 ? download->releaseOnceEarlierRepliesAreHandled() : download->release();
            self->reportFailures([&] {
              if (statusIsZero(result, status)) {
                acknowledged(download->sharedFileTransferID);
                self->updateFileID(download->finalPath());
                self->notifyArrived();
              }
            });
            Log::line("inside  updatefilereceived service *****************");
          });
      return;
    }
    Log::line("download finished");
    DeleteReceivedFileFromTransferQuery query;
    query.isFileExists = "true";
    query.savedFileID = download->savedFileID;
    query.sharedFileTransferID = download->sharedFileTransferID;
    RestInterface::asyncDeleteReceivedFileFromTransfer(
        query,
        [self = shared_from_this(), download](
            const OperationResult<DeleteReceivedFileFromTransferResponseData>& result, int status) {
          status == 0 ? download->releaseOnceEarlierRepliesAreHandled() : download->release();
          self->reportFailures([&] {
            if (status != 0) return;
            if (statusIsZero(result, status)) {
              acknowledged(download->sharedFileTransferID);
              self->notifyArrived();
              self->updateFileID(download->finalPath());
            } else {
              self->notify();
            }
          });
          Log::printf("inside deletefilefromtransfer service ....&&&&&&&&&&&& %ld",
                      static_cast<long>(status));
        });
  });
}

void ReceiveFileFromTransferHandler::failed(const std::shared_ptr<Download>& download,
                                            const PlatformError& error) {
  reportFailures([&] {
    if (download) download->release();
    const long code = error.code();
    if (code == PlatformError::kNetworkConnectionLost) {
      // A cloud download starts again from nothing; another computer's resumes
      // from the partial file, whose size is the next request's "Length".
      if (download && download->source() == Download::Source::kCloud) download->abandon();
      notify();
    } else if (code == PlatformError::kCannotConnectToHost || code == PlatformError::kTimedOut) {
      notify();
    }
    // kept: for the three codes above the delegate is told twice.
    notify();
    Log::line(error.description());
  });
}
