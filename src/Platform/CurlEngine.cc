#include "Platform/CurlEngine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <strings.h>
#include <algorithm>
#include <cstdlib>

#include "Platform/ConfinedFolder.h"
#include "Platform/CurlTransfer.h"
#include "Platform/Environment.h"
#include "Platform/FileHandle.h"
#include "Platform/Log.h"
#include "Platform/URLSession.h"

namespace {

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\r' || text.back() == '\n' || text.back() == ' ')) {
    text.pop_back();
  }
  std::size_t start = text.find_first_not_of(' ');
  return start == std::string::npos ? std::string() : text.substr(start);
}

bool hasHeader(const URLRequest::Headers& headers, const char* name) {
  for (const auto& header : headers) {
    if (::strcasecmp(header.first.c_str(), name) == 0) return true;
  }
  return false;
}

// The platform error code of a curl result.
long platformCodeForCurlCode(CURLcode code) {
  switch (code) {
    case CURLE_OK:
      return 0;
    case CURLE_OPERATION_TIMEDOUT:
      return PlatformError::kTimedOut;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return PlatformError::kUnsupportedURL;
    case CURLE_URL_MALFORMAT:
      return PlatformError::kBadURL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return PlatformError::kCannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return PlatformError::kCannotConnectToHost;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_READ_ERROR:
    case CURLE_ABORTED_BY_CALLBACK:
    case CURLE_HTTP2_STREAM:
      return PlatformError::kNetworkConnectionLost;
    case CURLE_TOO_MANY_REDIRECTS:
      return PlatformError::kHTTPTooManyRedirects;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
    case CURLE_FILESIZE_EXCEEDED:
      return PlatformError::kBadServerResponse;
    case CURLE_WRITE_ERROR:
      return PlatformError::kCannotWriteToFile;
    case CURLE_SSL_CONNECT_ERROR:
      return PlatformError::kSecureConnectionFailed;
    case CURLE_PEER_FAILED_VERIFICATION:
      return PlatformError::kServerCertificateUntrusted;
    default:
      return PlatformError::kNetworkConnectionLost;
  }
}

}  // namespace

// Callbacks from libcurl, on the engine thread.
struct CurlCallbacks {
  static size_t header(char* data, size_t size, size_t count, void* user) {
    auto* task = static_cast<URLSessionTask*>(user);
    CurlTransfer& transfer = *task->transfer_;
    std::string line(data, size * count);
    if (line == "\r\n" || line == "\n") {
      // The end of one answer's header: an interim answer's or a redirect's is
      // dropped, the final one is kept.
      long status = 0;
      curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
      if (status >= 200) {
        std::lock_guard lock(task->mutex_);
        task->response_ = URLResponse{task->request_.url, status, transfer.headers};
      }
      transfer.headers.clear();
    } else if (line.rfind("HTTP/", 0) != 0) {
      if (std::size_t colon = line.find(':'); colon != std::string::npos) {
        transfer.headers.emplace_back(line.substr(0, colon), trimmed(line.substr(colon + 1)));
      }
    }
    return size * count;
  }

  // The final answer's status when the request requires a successful one and this
  // is not; nullopt otherwise.
  static std::optional<long> refusedStatus(const URLSessionTask& task) {
    if (!task.request_.requiresSuccessfulStatus) return std::nullopt;
    long status = 0;
    curl_easy_getinfo(task.transfer_->easy, CURLINFO_RESPONSE_CODE, &status);
    if (status >= 200 && status <= 299) return std::nullopt;
    return status;
  }

  static size_t write(char* data, size_t size, size_t count, void* user) {
    auto* task = static_cast<URLSessionTask*>(user);
    CurlTransfer& transfer = *task->transfer_;
    size_t length = size * count;
    // Only the final answer's body comes here: a followed redirect's is skipped.
    transfer.refusedStatus = refusedStatus(*task);
    if (transfer.refusedStatus) return 0;  // ends the transfer before a byte is handed on
    if (task->kind_ == URLSessionTask::Kind::kDownload) {
      if (!FileHandle::writeAll(transfer.downloadFd, data, length)) {
        return 0;  // ends the transfer with a write error
      }
    } else if (task->completion_) {
      if (length > CurlEngine::kMaximumAnswerLength - transfer.received.size()) {
        transfer.answerTooLong = true;
        return 0;  // ends the transfer; reported as "data length exceeds maximum"
      }
      transfer.received.append(data, length);
    } else {
      if (task->undelivered_.load() >= CurlEngine::kMaximumUndelivered) {
        // Paused until the delegate's queue has taken enough; whichever side
        // clears the mark first decides who lets the data flow again.
        task->heldBack_.store(true);
        if (task->undelivered_.load() >= CurlEngine::kResumeBelow ||
            !task->heldBack_.exchange(false)) {
          transfer.heldForDelegate = true;
          return CURL_WRITEFUNC_PAUSE;  // libcurl hands the same bytes again later
        }
      }
      gather(*task, data, length);
    }
    return length;
  }

  // Adds `length` bytes to the pieces for the delegate, handing over each piece
  // as it fills.
  static void gather(URLSessionTask& task, const char* data, std::size_t length) {
    CurlTransfer& transfer = *task.transfer_;
    const auto now = std::chrono::steady_clock::now();
    transfer.lastArrival = now;
    while (length > 0) {
      if (transfer.pending.empty()) {
        transfer.pendingSince = now;
        if (transfer.pending.capacity() < CurlEngine::kDeliveryPiece) {
          transfer.pending = CurlEngine::shared().takePiece();
        }
      }
      const std::size_t taken =
          std::min(length, CurlEngine::kDeliveryPiece - transfer.pending.size());
      transfer.pending.append(data, taken);
      data += taken;
      length -= taken;
      if (transfer.pending.size() == CurlEngine::kDeliveryPiece) deliverPending(task);
    }
  }

  static int debug(CURL* /*easy*/, curl_infotype type, char* data, size_t size, void* user) {
    auto* task = static_cast<URLSessionTask*>(user);
    if (type == CURLINFO_HEADER_OUT && task->transfer_->sentHeaders) {
      task->transfer_->sentHeaders(task->request_.url, std::string(data, size));
    }
    return 0;
  }

  // Hands what has gathered to the delegate's queue.
  static void deliverPending(URLSessionTask& task) {
    CurlTransfer& transfer = *task.transfer_;
    if (transfer.pending.empty()) return;
    task.undelivered_.fetch_add(transfer.pending.size());
    auto self = task.shared_from_this();
    task.session_->deliver([self, chunk = std::move(transfer.pending)]() mutable {
      // Taken off the queue before it is handled, so that a transfer held back
      // goes on while the delegate still has this piece to handle.
      CurlEngine::shared().delivered(self, chunk.size());
      if (auto delegate = self->session_->delegate()) delegate->didReceiveData(*self, chunk);
      CurlEngine::shared().giveBackPiece(std::move(chunk));
    });
    transfer.pending = std::string();
  }

  static size_t read(char* buffer, size_t size, size_t count, void* user) {
    auto* task = static_cast<URLSessionTask*>(user);
    CurlTransfer& transfer = *task->transfer_;
    // libcurl asks for more only once what it took before has gone.
    transfer.bodyGone = transfer.bodyRead;
    long n = transfer.body->read(buffer, size * count);
    if (n < 0) return CURL_READFUNC_ABORT;
    transfer.bodyRead += n;
    transfer.bodyEnded = n == 0;
    reportSent(*task);
    return static_cast<size_t>(n);
  }

  // Tells the delegate how much of the body has gone, in steps of at least
  // kProgressStep and once at its end.
  static void reportSent(URLSessionTask& task) {
    CurlTransfer& transfer = *task.transfer_;
    const std::int64_t sent = transfer.bodyGone - transfer.bodyReported;
    if (task.completion_ || sent <= 0) return;
    if (sent < CurlEngine::kProgressStep && !transfer.bodyEnded) return;
    transfer.bodyReported = transfer.bodyGone;
    auto self = task.shared_from_this();
    task.session_->deliver([self, sent, total = transfer.bodyGone, expected = transfer.bodyLength] {
      if (auto delegate = self->session_->delegate()) {
        delegate->didSendBodyData(*self, sent, total, expected);
      }
    });
  }

  // Called at least once a second while the transfer lives.
  static int progress(void* user, curl_off_t /*dltotal*/, curl_off_t dlnow, curl_off_t /*ultotal*/,
                      curl_off_t ulnow) {
    auto* task = static_cast<URLSessionTask*>(user);
    CurlTransfer& transfer = *task->transfer_;
    // Request time-out: no byte either way for that long.
    auto now = std::chrono::steady_clock::now();
    if (task->heldBack_.load()) {
      transfer.lastActivity = now;  // waiting on the delegate, not on the network
    } else if (dlnow + ulnow != transfer.bytesMoved) {
      transfer.bytesMoved = dlnow + ulnow;
      transfer.lastActivity = now;
    } else if (now - transfer.lastActivity > transfer.requestTimeout) {
      transfer.timedOut = true;
      return 1;
    }
    // A body of known length is counted by libcurl as it goes (a stream's count
    // holds its chunks' framing too, so a stream is counted by its reads).
    if (transfer.bodyLength >= 0 && ulnow > transfer.bodyGone) {
      transfer.bodyGone = std::min<std::int64_t>(ulnow, transfer.bodyLength);
      transfer.bodyEnded = transfer.bodyGone == transfer.bodyLength;
      reportSent(*task);
    }
    return 0;
  }
};

CurlEngine& CurlEngine::shared() {
  // Never destroyed: transfers may still be in flight while the process exits.
  static auto* engine = new CurlEngine;
  return *engine;
}

CurlEngine::CurlEngine() {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  multi_ = curl_multi_init();
  curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
  thread_ = std::thread([this] { run(); });
  thread_.detach();
}

std::size_t CurlEngine::activeTransfers() { return activeCount_.load(); }

void CurlEngine::post(std::function<void()> command) {
  {
    std::lock_guard lock(mutex_);
    commands_.push_back(std::move(command));
  }
  curl_multi_wakeup(multi_);
}

void CurlEngine::start(std::shared_ptr<URLSessionTask> task) {
  post([this, task = std::move(task)] { begin(task); });
}

void CurlEngine::setPaused(std::shared_ptr<URLSessionTask> task, bool paused) {
  post([task = std::move(task), paused] {
    if (task->transfer_ && task->transfer_->easy != nullptr) {
      curl_easy_pause(task->transfer_->easy, paused ? CURLPAUSE_ALL : CURLPAUSE_CONT);
    }
  });
}

void CurlEngine::delivered(const std::shared_ptr<URLSessionTask>& task, std::size_t length) {
  const std::size_t waiting = task->undelivered_.fetch_sub(length) - length;
  if (waiting >= kResumeBelow || !task->heldBack_.exchange(false)) return;
  post([task] {
    bool suspended = false;
    {
      std::lock_guard lock(task->mutex_);
      suspended = task->state_ == URLSessionTask::State::kSuspended;
    }
    if (!task->transfer_ || task->transfer_->easy == nullptr) return;
    CurlTransfer& transfer = *task->transfer_;
    // The time held back is no pause of the answer: the piece being gathered
    // fills on from here.
    transfer.heldForDelegate = false;
    transfer.pendingSince = transfer.lastArrival = std::chrono::steady_clock::now();
    if (!suspended) curl_easy_pause(transfer.easy, CURLPAUSE_CONT);
  });
}

void CurlEngine::cancel(std::shared_ptr<URLSessionTask> task) {
  post([this, task = std::move(task)] {
    {
      std::lock_guard lock(task->mutex_);
      if (task->state_ == URLSessionTask::State::kCompleted) return;
    }
    finishWithCode(task, PlatformError::kCancelled, "cancelled");
  });
}

void CurlEngine::run() {
  for (;;) {
    std::vector<std::function<void()>> commands;
    {
      std::lock_guard lock(mutex_);
      commands.swap(commands_);
    }
    for (auto& command : commands) command();
    int running = 0;
    curl_multi_perform(multi_, &running);
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      auto it = active_.find(message->easy_handle);
      if (it == active_.end()) continue;
      std::shared_ptr<URLSessionTask> task = it->second;
      finish(task, message->data.result);
    }
    const std::chrono::milliseconds wait = handOverDuePieces();
    curl_multi_poll(multi_, nullptr, 0, static_cast<int>(wait.count()), nullptr);
  }
}

std::chrono::milliseconds CurlEngine::handOverDuePieces() {
  using std::chrono::milliseconds;
  const auto now = std::chrono::steady_clock::now();
  milliseconds wait{1000};
  for (const auto& [easy, task] : active_) {
    CurlTransfer& transfer = *task->transfer_;
    if (transfer.pending.empty() || transfer.heldForDelegate) continue;
    const auto due =
        std::min(transfer.lastArrival + kDeliveryPause, transfer.pendingSince + kDeliveryLatency);
    if (due <= now) {
      CurlCallbacks::deliverPending(*task);
    } else {
      wait = std::min(wait, std::chrono::ceil<milliseconds>(due - now));
    }
  }
  return wait;
}

namespace {

// Creates a download task's file in the temporary folder; its descriptor, with
// `path` set to it, or -1. The user's own temporary folder is made 0700 first, or
// refused with a line saying why.
int createDownloadFile(std::string& path) {
  const std::string folder = Environment::current()->temporaryFolder;
  if (folder == Environment::ownTemporaryFolder()) {
    try {
      ConfinedFolder::privateFolder(folder);
    } catch (const std::exception& refused) {
      Log::printf("Nothing is downloaded: %s", refused.what());
      return -1;
    }
  }
  std::string made = folder + "CFNetworkDownload_XXXXXX.tmp";
  const int fd = ::mkostemps(made.data(), 4, O_CLOEXEC);
  if (fd >= 0) path = std::move(made);
  return fd;
}

std::string hostKeyOf(const std::string& url) {
  std::string key;
  CURLU* parsed = curl_url();
  if (curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK) {
    for (CURLUPart part : {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT}) {
      char* text = nullptr;
      if (curl_url_get(parsed, part, &text, CURLU_DEFAULT_PORT) == CURLUE_OK) key += text;
      key += '|';
      curl_free(text);
    }
  }
  curl_url_cleanup(parsed);
  return key;
}

}  // namespace

bool CurlEngine::withinHostLimit(const URLSessionTask& task) const {
  std::optional<int> limit = task.session_->configuration().HTTPMaximumConnectionsPerHost;
  if (!limit) return true;
  int running = 0;
  for (const auto& [easy, other] : active_) {
    if (other->session_ == task.session_ && other->transfer_->hostKey == task.transfer_->hostKey) {
      ++running;
    }
  }
  return running < *limit;
}

void CurlEngine::begin(const std::shared_ptr<URLSessionTask>& task) {
  {
    std::lock_guard lock(task->mutex_);
    if (task->state_ == URLSessionTask::State::kCompleted) return;
  }
  if (!task->transfer_) {
    task->transfer_ = std::make_unique<CurlTransfer>();
    task->transfer_->hostKey = hostKeyOf(task->request_.url);
  }
  CurlTransfer& transfer = *task->transfer_;
  if (!withinHostLimit(*task)) {
    waiting_.push_back(task);  // starts when one of its session's transfers ends
    return;
  }
  const URLRequest& request = task->request_;
  const URLSessionConfiguration& configuration = task->session_->configuration();
  CURL* easy = curl_easy_init();
  if (easy == nullptr) {
    finishWithCode(task, PlatformError::kUnknown, "the transfer engine could not make a transfer");
    return;
  }
  transfer.easy = easy;
  curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &CurlCallbacks::header);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, task.get());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlCallbacks::write);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, task.get());
  if (task->kind_ != URLSessionTask::Kind::kDownload && !task->completion_) {
    // Data for a delegate comes in large pieces: fewer hand-overs per file.
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, 256L * 1024L);
  }
  if (task->kind_ == URLSessionTask::Kind::kUploadFromFile || request.httpBodyStream) {
    curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, static_cast<long>(kUploadPiece));
  }
  if ((transfer.sentHeaders = Environment::current()->sentHeaders)) {
    curl_easy_setopt(easy, CURLOPT_DEBUGFUNCTION, &CurlCallbacks::debug);
    curl_easy_setopt(easy, CURLOPT_DEBUGDATA, task.get());
    curl_easy_setopt(easy, CURLOPT_VERBOSE, 1L);
  }
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &CurlCallbacks::progress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, task.get());
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 16L);

  // Request time-out: no byte for that long. Resource time-out: the whole transfer.
  double requestTimeout = request.timeoutInterval > 0
                              ? request.timeoutInterval
                              : configuration.timeoutIntervalForRequest.value_or(60);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(requestTimeout * 1000));
  transfer.requestTimeout = std::chrono::milliseconds(static_cast<long>(requestTimeout * 1000));
  transfer.lastActivity = std::chrono::steady_clock::now();
  double resourceTimeout = configuration.timeoutIntervalForResource.value_or(7 * 24 * 3600);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(resourceTimeout * 1000));

  // The request's headers as given and in order, then the session's extra
  // headers that the request does not set itself.
  URLRequest::Headers headers = request.headers;
  for (const auto& header : configuration.HTTPAdditionalHeaders) {
    if (!hasHeader(headers, header.first.c_str())) headers.push_back(header);
  }
  bool streamed = request.httpBodyStream != nullptr;
  if (streamed && !hasHeader(headers, "Transfer-Encoding")) {
    headers.emplace_back("Transfer-Encoding", "chunked");
  }
  for (const auto& [name, value] : headers) {
    // curl sends "Name;" as a header with an empty value.
    std::string line = name;
    line += value.empty() ? ";" : ": ";
    line += value;
    transfer.headerList = curl_slist_append(transfer.headerList, line.c_str());
  }
  transfer.headerList = curl_slist_append(transfer.headerList, "Expect:");
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headerList);

  if (request.httpMethod == "POST") {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
  } else if (request.httpMethod != "GET") {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.httpMethod.c_str());
  }

  if (task->kind_ == URLSessionTask::Kind::kUploadFromFile) {
    struct stat st {};
    transfer.body = std::make_shared<InputStream>(task->uploadFilePath_, 0);
    if (!transfer.body->isOpen() || ::stat(task->uploadFilePath_.c_str(), &st) != 0) {
      finishWithCode(task, PlatformError::kFileDoesNotExist, "The file to upload does not exist");
      return;
    }
    transfer.bodyLength = st.st_size;
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(st.st_size));
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &CurlCallbacks::read);
    curl_easy_setopt(easy, CURLOPT_READDATA, task.get());
  } else if (streamed) {
    transfer.body = request.httpBodyStream;
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &CurlCallbacks::read);
    curl_easy_setopt(easy, CURLOPT_READDATA, task.get());
  } else if (!request.httpBody.empty() || request.httpMethod == "POST") {
    transfer.bodyLength = static_cast<std::int64_t>(request.httpBody.size());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.httpBody.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.httpBody.data());
  }

  if (task->kind_ == URLSessionTask::Kind::kDownload) {
    transfer.downloadFd = createDownloadFile(transfer.downloadPath);
    if (transfer.downloadFd < 0) {
      finishWithCode(task, PlatformError::kCannotCreateFile, "Cannot create the download file");
      return;
    }
  }

  if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
    finishWithCode(task, PlatformError::kUnknown, "the transfer engine could not start a transfer");
    return;
  }
  active_.emplace(easy, task);
  activeCount_.store(active_.size());
  bool paused = false;
  {
    std::lock_guard lock(task->mutex_);
    paused = task->state_ == URLSessionTask::State::kSuspended;
  }
  if (paused) curl_easy_pause(easy, CURLPAUSE_ALL);
}

void CurlEngine::finish(const std::shared_ptr<URLSessionTask>& task, int curlCode) {
  auto result = static_cast<CURLcode>(curlCode);
  CurlTransfer& transfer = *task->transfer_;
  if (result == CURLE_OK) {
    // An answer came, so the whole body went before it.
    transfer.bodyGone = transfer.bodyLength >= 0 ? transfer.bodyLength : transfer.bodyRead;
    transfer.bodyEnded = true;
    CurlCallbacks::reportSent(*task);
  }
  CurlCallbacks::deliverPending(*task);  // what arrived goes before the ending
  // Refused at its first byte, or at its end when it had none.
  const std::optional<long> refused =
      result == CURLE_OK ? CurlCallbacks::refusedStatus(*task) : transfer.refusedStatus;
  if (refused) {
    finishWithCode(task, PlatformError::kBadServerResponse,
                   "bad server response: HTTP " + std::to_string(*refused));
  } else if (result == CURLE_OK) {
    finishWithCode(task, 0, "");
  } else if (result == CURLE_ABORTED_BY_CALLBACK && transfer.timedOut) {
    finishWithCode(task, PlatformError::kTimedOut, "The request timed out.");
  } else if (result == CURLE_WRITE_ERROR && transfer.answerTooLong) {
    finishWithCode(task, PlatformError::kDataLengthExceedsMaximum, "resource exceeds maximum size");
  } else {
    finishWithCode(task, platformCodeForCurlCode(result), curl_easy_strerror(result));
  }
}

std::string CurlEngine::takePiece() {
  {
    std::lock_guard lock(piecesMutex_);
    if (!sparePieces_.empty()) {
      std::string piece = std::move(sparePieces_.back());
      sparePieces_.pop_back();
      return piece;
    }
  }
  std::string piece;
  piece.reserve(kDeliveryPiece);
  return piece;
}

void CurlEngine::giveBackPiece(std::string piece) {
  if (piece.capacity() < kDeliveryPiece || activeCount_.load() == 0) return;
  piece.clear();
  std::lock_guard lock(piecesMutex_);
  if (sparePieces_.size() < kSparePieces) sparePieces_.push_back(std::move(piece));
}

void CurlEngine::finishWithCode(const std::shared_ptr<URLSessionTask>& task, long code,
                                std::string description) {
  waiting_.erase(std::remove(waiting_.begin(), waiting_.end(), task), waiting_.end());
  std::string data;
  std::string downloadPath;
  if (task->transfer_) {
    CurlTransfer& transfer = *task->transfer_;
    if (transfer.easy != nullptr) {
      active_.erase(transfer.easy);
      activeCount_.store(active_.size());
      if (active_.empty()) {
        std::lock_guard lock(piecesMutex_);
        sparePieces_.clear();
      }
      // libcurl may still call back while the handle is removed: the transfer
      // record stays in place until it is done.
      curl_multi_remove_handle(multi_, transfer.easy);
      curl_easy_cleanup(transfer.easy);
      transfer.easy = nullptr;
      // A place is free: the first waiting transfer of the same session and host starts.
      auto next = std::find_if(waiting_.begin(), waiting_.end(), [&](const auto& other) {
        return other->session_ == task->session_ && other->transfer_->hostKey == transfer.hostKey;
      });
      if (next != waiting_.end()) {
        std::shared_ptr<URLSessionTask> starting = *next;
        waiting_.erase(next);
        begin(starting);
      }
    }
    curl_slist_free_all(transfer.headerList);
    if (transfer.downloadFd >= 0) ::close(transfer.downloadFd);
    downloadPath = transfer.downloadPath;
    data = task->kind_ == URLSessionTask::Kind::kDownload ? transfer.downloadPath
                                                          : std::move(transfer.received);
    task->transfer_.reset();
  }

  if (long injected = Environment::takeInjectedTransferFailure(); injected != 0) {
    code = injected;
    description = "injected failure";
  }
  std::optional<PlatformError> error;
  if (code != 0) error.emplace(PlatformError::kURLErrorDomain, code, description);
  {
    std::lock_guard lock(task->mutex_);
    task->state_ = URLSessionTask::State::kCompleted;
  }
  task->session_->deliver([task, data = std::move(data), error, downloadPath] {
    std::optional<URLResponse> response = task->response();
    // Moved out so that what the handler captures is released once it returns.
    URLSessionTask::Completion completion = std::move(task->completion_);
    if (completion) completion(error ? std::string() : data, response, error);
    // The delegate hears of every task's end, with or without a handler.
    if (auto delegate = task->session_->delegate()) delegate->didCompleteWithError(*task, error);
    if (!downloadPath.empty()) ::unlink(downloadPath.c_str());
  });
}
