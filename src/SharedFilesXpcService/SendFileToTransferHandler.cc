#include "SharedFilesXpcService/SendFileToTransferHandler.h"

#include <sys/stat.h>

#include "Platform/InputStream.h"
#include "Platform/Log.h"
#include "Platform/Predicate.h"
#include "Platform/Readings.h"
#include "Platform/URLConnection.h"
#include "Platform/URLSession.h"
#include "Platform/UserDefaults.h"
#include "Platform/ValueError.h"
#include "Services/JsonBody.h"
#include "Services/NetWorkConnectionStatus.h"
#include "Services/Records/CheckFileExistsInTransfersResponseData.h"
#include "Services/Records/UpdateFileExistResponseData.h"
#include "Services/Records/UpdateFileSendReceivedResponseData.h"
#include "Services/RestInterface.h"
#include "Services/ServicesUtilities.h"
#include "SharedFilesXpcService/ErrorLogReport.h"
#include "SharedFilesXpcService/SharedFilesList.h"

namespace {

std::mutex gFileToTransferMutex;
FileToTransfer gFileToTransfer;  // guarded by gFileToTransferMutex

void setFileToTransfer(FileToTransfer file) {
  std::lock_guard lock(gFileToTransferMutex);
  gFileToTransfer = std::move(file);
}

// Sets `field` on `request` to the text of `value`; no header when it is absent.
void setHeader(URLRequest& request, const WireValue& value, const char* field) {
  if (std::optional<std::string> text = Readings::headerText(value)) {
    request.setValueForHTTPHeaderField(*text, field);
  }
}

// kept: "ComputerID" names the sender only when it also receives (its own copy
// in the cloud); otherwise the receiver.
const WireValue& cloudComputerId(const FileToTransfer& file) {
  return Readings::isEqualToString(file.fromComputerId, file.toComputerId) ? file.fromComputerId
                                                                           : file.toComputerId;
}

// The size of the regular file at `path` as decimal text; "0" for anything else.
// The item's size as the file manager gives it: of any kind of item, and of a
// link itself rather than what it points to; "0" when there is none.
std::string lengthOf(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return "0";
  return std::to_string(st.st_size);
}

std::string describe(const URLRequest& request) {
  return "<NSMutableURLRequest> { URL: " + request.url + " }";
}

std::string describe(const std::vector<std::pair<std::string, std::string>>& headers) {
  std::string text = "{";
  for (const auto& [name, value] : headers) {
    text.append("\n    \"").append(name).append("\" = \"").append(value).append("\";");
  }
  return text + "\n}";
}

template <class Record>
std::string describe(const OperationResult<Record>& result) {
  if (result.record) {
    return "<ReturnStatus: " +
           (result.record->returnStatus ? JsonBody::describe(*result.record->returnStatus)
                                        : std::string("(null)")) +
           ">";
  }
  if (const auto* error = std::get_if<PlatformError>(&result.transportResult)) {
    return error->description();
  }
  return "(null)";
}

}  // namespace

SendFileToTransferHandler::SendFileToTransferHandler() {
  iAppsPrefs_.refresh();
  setFileToTransfer({});
}

void SendFileToTransferHandler::setDelegate(std::weak_ptr<SendFileToTransferDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void SendFileToTransferHandler::notify(bool sent) const {
  std::shared_ptr<SendFileToTransferDelegate> told;
  {
    std::lock_guard lock(mutex_);
    told = delegate_.lock();
  }
  if (!told) return;
  if (sent) told->transferEndedWell();
  told->SendFileNotify();
}

FileToTransfer SendFileToTransferHandler::fileToTransfer() {
  std::lock_guard lock(gFileToTransferMutex);
  return gFileToTransfer;
}

std::string SendFileToTransferHandler::strFileNameToSend() const {
  std::lock_guard lock(mutex_);
  return strFileNameToSend_;
}

std::optional<std::string> SendFileToTransferHandler::userType() const {
  std::lock_guard lock(mutex_);
  return userType_;
}

WireValue SendFileToTransferHandler::bytePos() const {
  std::lock_guard lock(mutex_);
  return bytePos_;
}

Value::Array SendFileToTransferHandler::sharedFilesDefaultsArray() const {
  PackedValue packed;
  {
    std::lock_guard lock(mutex_);
    packed = sharedFilesDefaultsArray_;
  }
  return packed.unpackedArray();
}

std::string SendFileToTransferHandler::localFileOf(const FileToTransfer& file) {
  const Predicate::Argument owner = Readings::objectValue(file.ownerFileID);
  Value::Dictionary domain;
  const char* list = nullptr;
  const char* format = nullptr;
  const char* key = nullptr;
  if (Readings::integerValue(file.isOwnerToSubscriber) == 1) {
    domain = UserDefaults::persistentDomainForName("Quentara.SyncFilesXpcService");
    list = "FileWatchedDataKey";
    format = "(FileIDKey == %@)";
    key = "BaseSystemFilePathKey";
  } else {
    domain = UserDefaults::persistentDomainForName("Quentara.SharedFilesXpcService");
    list = "SharedFileDataKey";
    // kept: this look-up has always been written with a trailing blank.
    format = "(OwnerFileID == %@) ";
    key = "FileName";
  }
  const Value* entries = Value::objectForKey(domain, list);
  if (entries == nullptr) return "";
  if (entries->array() == nullptr) {
    throw ValueError(std::string(list) + " holds a " + std::string(entries->kindName()) +
                     ", not a list");
  }
  Value::Array matches = SharedFilesList::filter(*entries->array(), format, {owner});
  if (matches.empty()) return "";
  const Value* path = matches.front().objectForKey(key);
  if (path == nullptr) return "";
  if (path->string() == nullptr) {
    throw ValueError(std::string(key) + " holds a " + std::string(path->kindName()) +
                     ", not a path");
  }
  return *path->string();
}

void SendFileToTransferHandler::FileToTransferMethod(const std::vector<FileToTransfer>& files) {
  if (files.empty()) return;
  try {
    // The pass keeps a copy of the list and never reads it: a value that is not a
    // list (logged by the load) holds up no upload.
    PackedValue list{Value::Array()};
    try {
      list = SharedFilesList::loadPacked(UserDefaults::standardUserDefaults());
    } catch (const ValueError&) {  // NOLINT(bugprone-empty-catch): the copy stays empty
    }
    {
      std::lock_guard lock(mutex_);
      sharedFilesDefaultsArray_ = std::move(list);
    }
    Log::line("Inside file to transfer method......");
    for (const FileToTransfer& file : files) {
      const bool content = Readings::integerValue(file.changeType) == 1 &&
                           Readings::isEqualToString(file.isFile, "True");
      if (!content) {
        if (Readings::isEqualToString(file.fromComputerId, file.toComputerId) &&
            Readings::isEqualToString(file.toCloud, "1")) {
          UpdateFileSendReceivedMethod(file);
        }
        notify();
        continue;
      }
      Log::line("Inside if loop......");
      {
        std::lock_guard lock(mutex_);
        strFileNameToSend_.clear();
      }
      std::string local = localFileOf(file);
      {
        std::lock_guard lock(mutex_);
        strFileNameToSend_ = std::move(local);
      }
      if (Readings::integerValue(file.toCloud) == 1) {
        {
          // kept: nothing ever clears it, so once a cloud record has been handled
          // every later completion on a session runs the cloud's follow-ups too.
          std::lock_guard lock(mutex_);
          userType_ = "Cloud";
        }
        setFileToTransfer(file);
        UpdateFileRequestMethod(file);
        continue;
      }
      Log::line("Inside else and calling updatesendfileto transfer service...");
      CheckFileExistsInTransfersQuery query;
      query.sharedFileTransferID = file.sharedFileTransferId;
      query.fullPathfromFileTable = file.fullPathfromFileTable;
      RestInterface::asyncCheckFileExistsInTransfers(
          query,
          [self = shared_from_this(), file](
              const OperationResult<CheckFileExistsInTransfersResponseData>& result, int status) {
            self->endRecordOnFailure([&] {
              if (status != 0 || !result.record) {
                self->notify();
                return;
              }
              {
                std::lock_guard lock(self->mutex_);
                self->bytePos_ = result.record->byteStartPos;
              }
              self->UpdateSendFileToTransfer(file);
            });
          });
    }
  } catch (const std::exception& exception) {
    logErrorMethod(exception);
    Log::printf("Send File To Transfer Exception %s", exception.what());
    notify();
  }
}

void SendFileToTransferHandler::UpdateFileRequestMethod(const FileToTransfer& file) {
  auto stream = std::make_shared<InputStream>(strFileNameToSend(), 0);
  std::optional<URLRequest> request;
  if (NetWorkConnectionStatus::ConectionStatus()) {
    Log::line("connection available....");
    request.emplace();
    request->url = ServicesUtilities::baseURL() + "MAC/SharedFiles.svc/UploadFileWithStream";
  } else {
    // kept: without a network the upload goes on with no request at all, and
    // nobody is told; the record stays open until the application calls again.
    Log::line("connection not available.......");
  }
  if (request) {
    request->httpMethod = "POST";
    request->httpBodyStream = stream;
    request->setValueForHTTPHeaderField("application/octet-stream", "Content-Type");
    setHeader(*request, cloudComputerId(file), "ComputerID");
    // kept: the cloud request carries the record's full path under this name.
    setHeader(*request, file.fullPath, "FullPathFromFileTable");
    setHeader(*request, file.tallowboxPath, "TallowboxPath");
    setHeader(*request, file.sharedFileTransferId, "SharedFileTransferID");
  }
  startAsyncUploadWithStreamRequest(request);
}

void SendFileToTransferHandler::UpdateSendFileToTransfer(const FileToTransfer& file) {
  const std::string path = strFileNameToSend();
  if (path.empty()) {
    notify();
    return;
  }
  // kept: "Length" is the whole file's size even when the upload resumes.
  const std::string length = lengthOf(path);
  Log::line("Indide UpdateSendFileToTransfer method....");
  // The position is read as an integer and taken as unsigned: a negative one is
  // past any end, and the body is empty.
  const auto offset = static_cast<std::uint64_t>(Readings::integerValue(bytePos()));
  auto stream = std::make_shared<InputStream>(path, offset);
  if (!NetWorkConnectionStatus::ConectionStatus()) {
    Log::line("Connection not available in UPDATEFILESENDTOTRANSFER.....");
    return;
  }
  Log::line("Connection available in UPDATEFILESENDTOTRANSFER.....");
  URLRequest request;
  request.url = ServicesUtilities::baseURL() + "MAC/SharedFiles.svc/UpdateSendFileToTransfer";
  request.httpMethod = "POST";
  request.httpBodyStream = stream;
  request.setValueForHTTPHeaderField("application/octet-stream", "Content-Type");
  setHeader(request, file.changeType, "ChangeType");
  setHeader(request, file.sharedFileTransferId, "SharedFileTransferID");
  setHeader(request, file.fullPathfromFileTable, "FullPathFromFileTable");
  setHeader(request, file.toCloud, "ToCloud");
  setHeader(request, file.isFile, "IsFile");
  setHeader(request, file.toComputerId, "ToComputerID");
  setHeader(request, file.fullPathNew, "NewFullPath");
  setHeader(request, file.ownerFileID, "OwnerFileID");
  setHeader(request, file.fromComputerId, "FromComputerID");
  setHeader(request, file.tallowboxPath, "TallowboxPath");
  setHeader(request, file.fullPath, "FileNameToSend");
  request.setValueForHTTPHeaderField(length, "Length");
  Log::printf("after header setting***************%s", describe(request).c_str());
  startAsyncUploadWithStreamRequest(request);
}

void SendFileToTransferHandler::startAsyncUploadWithStreamRequest(
    const std::optional<URLRequest>& request) {
  Log::printf("request in async task is%s", request ? describe(*request).c_str() : "(null)");
  if (!request) return;
  // One upload of a transfer at a time in the whole process; the server lists
  // the transfer again until it has it.
  const std::string transfer = request->valueForHTTPHeaderField("SharedFileTransferID");
  std::optional<TransferClaims::Claim> claim =
      TransferClaims::claim({TransferClaims::uploadKey(transfer)});
  if (!claim) {
    Log::printf("Left for a later cycle: transfer %s is being sent already", transfer.c_str());
    notify();
    return;
  }
  if (ServicesUtilities::isLessThan10_10()) {
    auto connection = URLConnection::create(*request, shared_from_this(), false);
    claimFor(connection.get(), std::move(*claim));
    connection->start();
    return;
  }
  auto session =
      URLSession::sessionWithConfiguration(URLSessionConfiguration::defaultSessionConfiguration(),
                                           std::weak_ptr<URLSessionDelegate>(shared_from_this()));
  auto task = session->uploadTaskWithStreamedRequest(*request);
  claimFor(task.get(), std::move(*claim));
  task->resume();
}

void SendFileToTransferHandler::claimFor(const void* upload, TransferClaims::Claim claim) {
  std::lock_guard lock(mutex_);
  uploading_[upload] = std::move(claim);
}

void SendFileToTransferHandler::uploadEnded(const void* upload) {
  TransferClaims::Claim ended;
  {
    std::lock_guard lock(mutex_);
    if (auto it = uploading_.find(upload); it != uploading_.end()) {
      ended = std::move(it->second);
      uploading_.erase(it);
    }
  }
}

void SendFileToTransferHandler::answerArrived(const std::string& data) const {
  if (data.empty()) return;
  auto decoded = JsonBody::decode(data);
  const auto* answer = std::get_if<nlohmann::json>(&decoded);
  if (answer == nullptr) {
    // kept: the answer is shown as UTF-8 text, which bytes that are not give as none.
    Log::line("responseData = " +
              (Readings::isUTF8(data) ? data.substr(0, Log::kMaximumLineLength) : "(null)"));
    return;
  }
  Log::line("response = " + JsonBody::describe(*answer));
  if (!answer->is_object()) throw ValueError("an upload's answer is no dictionary");
  auto status = answer->find("ReturnStatus");
  if (status != answer->end() && Readings::isEqualToString(*status, "0")) notify(true);
}

void SendFileToTransferHandler::endRecordOnFailure(const std::function<void()>& work) const {
  try {
    work();
  } catch (const std::exception& error) {
    // Where the platform would have ended the process, this record ends instead:
    // only this pass's flag is cleared, as a new process would find it.
    Log::printf("Dropped a reply the send pass cannot read: %s", error.what());
    notify();
  }
}

void SendFileToTransferHandler::didReceiveData(URLSessionTask& /*task*/, const std::string& data) {
  endRecordOnFailure([&] { answerArrived(data); });
}

void SendFileToTransferHandler::didReceiveData(URLConnection& /*connection*/,
                                               const std::string& data) {
  endRecordOnFailure([&] { answerArrived(data); });
}

void SendFileToTransferHandler::didSendBodyData(URLSessionTask& /*task*/, std::int64_t bytesSent,
                                                std::int64_t totalBytesSent,
                                                std::int64_t totalBytesExpectedToSend) {
  Log::printf("bytesSent: %lld", static_cast<long long>(bytesSent));
  Log::printf("totalBytesSent: %lld", static_cast<long long>(totalBytesSent));
  Log::printf("totalBytesExpectedToSend: %lld", static_cast<long long>(totalBytesExpectedToSend));
}

void SendFileToTransferHandler::didSendBodyData(URLConnection& /*connection*/,
                                                std::int64_t bytesWritten,
                                                std::int64_t totalBytesWritten,
                                                std::int64_t totalBytesExpectedToWrite) {
  Log::printf("bytesSent: %ld", static_cast<long>(bytesWritten));
  Log::printf("totalBytesSent: %ld", static_cast<long>(totalBytesWritten));
  Log::printf("totalBytesExpectedToSend: %ld", static_cast<long>(totalBytesExpectedToWrite));
}

void SendFileToTransferHandler::didCompleteWithError(URLSessionTask& task,
                                                     const std::optional<PlatformError>& error) {
  std::optional<URLResponse> response = task.response();
  if (response && !response->headers.empty()) {
    Log::printf("response is......%s", describe(response->headers).c_str());
  }
  Log::printf("errror is*************%s", error ? error->description().c_str() : "(null)");
  uploadEnded(&task);
  if (!error && userType() == "Cloud") {
    // kept: the follow-ups report the record stored last, whichever task ended.
    const FileToTransfer last = fileToTransfer();
    UpdateFileExistMethod(last);
    UpdateFileSendReceivedMethod(last);
  }
  notify();
}

void SendFileToTransferHandler::connectionDidFinishLoading(URLConnection& connection) {
  // kept: the connection interface runs no follow-ups and notifies only on failure.
  connection.cancel();
  uploadEnded(&connection);
}

void SendFileToTransferHandler::didFailWithError(URLConnection& connection,
                                                 const PlatformError& /*error*/) {
  uploadEnded(&connection);
  notify();
  connection.cancel();
}

void SendFileToTransferHandler::UpdateFileExistMethod(const FileToTransfer& file) {
  UpdateFileExistQuery query;
  query.SharedFileTransferID = file.sharedFileTransferId;
  RestInterface::asyncUpdateFileExist(
      query, [](const OperationResult<UpdateFileExistResponseData>& result, int /*status*/) {
        Log::line("response inside fileexist service is:" + describe(result));
      });
}

void SendFileToTransferHandler::UpdateFileSendReceivedMethod(const FileToTransfer& file) {
  UpdateFileSendReceivedQuery query;
  query.SharedFileTransferID = file.sharedFileTransferId;
  RestInterface::asyncUpdateFileSendReceived(
      query, [](const OperationResult<UpdateFileSendReceivedResponseData>& result, int /*status*/) {
        Log::line("response inside the updatefilesendreceiveddat is:" + describe(result));
      });
}

void SendFileToTransferHandler::logErrorMethod(const std::exception& exception) {
  ErrorLogReport::send("SendFileToTransferHandler", "FileToTransferMethod", exception,
                       iAppsPrefs_.refresh());
}
