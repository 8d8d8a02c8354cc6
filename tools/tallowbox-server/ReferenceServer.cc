#include "ReferenceServer.h"

#include <httplib.h>
#include <strings.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {
constexpr const char* kPrefix = "/TallowboxRestService/";
}  // namespace

ReferenceServer::Reply ReferenceServer::json(const nlohmann::json& body, int status) {
  Reply reply;
  reply.status = status;
  reply.body = body.dump();
  return reply;
}

ReferenceServer::Reply ReferenceServer::raw(std::string bytes, std::string contentType) {
  Reply reply;
  reply.body = std::move(bytes);
  reply.contentType = std::move(contentType);
  return reply;
}

std::string ReferenceServer::Request::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (::strcasecmp(key.c_str(), name.c_str()) == 0) return value;
  }
  return "";
}

namespace {

std::vector<std::pair<std::string, std::string>> headersOf(const httplib::Request& request) {
  return {request.headers.begin(), request.headers.end()};
}

}  // namespace

ReferenceServer::ReferenceServer() : server_(std::make_unique<httplib::Server>()) { install(); }

ReferenceServer::~ReferenceServer() {
  stop();
  if (!temporaryStore_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(temporaryStore_, ignored);
  }
}

void ReferenceServer::setStoreFolder(const std::string& folder) { state_.openStore(folder); }

int ReferenceServer::start(const std::string& host, int port) {
  host_ = host;
  if (state_.storeFolder().empty()) {
    const char* tmp = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): before any thread
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/tallowbox-server-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a store");
    temporaryStore_ = pattern;
    state_.openStore(temporaryStore_);
  }
  if (port == 0) {
    port_ = server_->bind_to_any_port(host);
  } else {
    port_ = server_->bind_to_port(host, port) ? port : -1;
  }
  if (port_ <= 0) throw std::runtime_error("cannot listen on " + host + ":" + std::to_string(port));
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // The socket is bound already, so clients can connect; wait for the accept loop.
  for (int i = 0; i < 5000 && !server_->is_running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!server_->is_running()) throw std::runtime_error("the server did not start");
  return port_;
}

void ReferenceServer::stop() {
  {
    std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  stopping_.notify_all();
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

std::string ReferenceServer::baseURL() const {
  return "http://" + host_ + ":" + std::to_string(port_) + kPrefix;
}

void ReferenceServer::script(const std::string& operation, Reply reply) {
  std::lock_guard lock(mutex_);
  scripts_[operation].push_back(std::move(reply));
}

void ReferenceServer::clearScripts() {
  std::lock_guard lock(mutex_);
  scripts_.clear();
}

std::vector<ReferenceServer::Request> ReferenceServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<ReferenceServer::Request> ReferenceServer::requestsFor(
    const std::string& operation) const {
  std::vector<Request> matching;
  for (Request& request : requests()) {
    if (request.operation == operation) matching.push_back(std::move(request));
  }
  return matching;
}

void ReferenceServer::clearRequests() {
  std::lock_guard lock(mutex_);
  requests_.clear();
}

ReferenceServer::Reply ReferenceServer::nextReply(const std::string& operation,
                                                  const std::string& body) {
  std::unique_lock lock(mutex_);
  auto it = scripts_.find(operation);
  if (it == scripts_.end() || it->second.empty()) {
    lock.unlock();
    std::optional<nlohmann::json> answer = state_.answer(operation, body);
    return answer ? json(*answer) : Reply{};
  }
  std::vector<Reply>& replies = it->second;
  Reply reply = replies.front();
  if (reply.times > 0 ? --replies.front().times == 0 : replies.size() > 1) {
    replies.erase(replies.begin());
  }
  return reply;
}

bool ReferenceServer::hasScript(const std::string& operation) const {
  std::lock_guard lock(mutex_);
  auto found = scripts_.find(operation);
  return found != scripts_.end() && !found->second.empty();
}

void ReferenceServer::serve(const ServerState::Download& download, httplib::Response& response) {
  if (download.answerStatus != 0) {
    response.status = download.answerStatus;
    response.set_content(download.answerBody, download.answerContentType);
    return;
  }
  const std::uint64_t from = std::min(download.offset, download.size);
  const std::uint64_t length = download.size - from;
  if (length == 0) {
    response.set_content("", "application/octet-stream");
    return;
  }
  // Streamed from the store's file, a piece at a time.
  auto file = std::make_shared<std::ifstream>(download.path, std::ios::binary);
  const std::uint64_t cut = download.cutAfter;
  const std::uint64_t hold = download.holdAfter;
  const std::uint64_t pace = download.bytesPerSecond;
  response.set_content_provider(
      static_cast<std::size_t>(length), "application/octet-stream",
      [this, file, from, cut, hold, pace](std::size_t offset, std::size_t wanted,
                                          httplib::DataSink& sink) {
        if (offset >= cut) return false;  // drops the connection
        while (offset >= hold && !state_.fault("holdDownloadAfter").is_null()) {
          if (!pause(std::chrono::milliseconds(20))) return false;
        }
        std::uint64_t until = std::min(cut, offset < hold ? hold : UINT64_MAX);
        std::string piece(
            std::min<std::size_t>({wanted, 1 << 16, static_cast<std::size_t>(until - offset)}),
            '\0');
        file->seekg(static_cast<std::streamoff>(from + offset));
        file->read(piece.data(), static_cast<std::streamsize>(piece.size()));
        if (file->gcount() <= 0) return false;
        const auto sent = static_cast<std::size_t>(file->gcount());
        if (!sink.write(piece.data(), sent)) return false;
        return pace == 0 || pause(std::chrono::milliseconds(sent * 1000 / pace));
      });
}

bool ReferenceServer::pause(std::chrono::milliseconds duration) {
  std::unique_lock lock(mutex_);
  return !stopping_.wait_for(lock, duration, [this] { return stopped_; });
}

void ReferenceServer::install() {
  // One request per connection, so that stopping never waits on idle clients.
  server_->set_keep_alive_max_count(1);
  server_->set_payload_max_length(1ULL << 32);
  server_->Get("/admin/state", [this](const httplib::Request&, httplib::Response& response) {
    response.set_content(state_.snapshot().dump(2), "application/json");
  });
  server_->Post("/admin/state", [this](const httplib::Request& request,
                                       httplib::Response& response) {
    nlohmann::json patch = nlohmann::json::parse(request.body, nullptr, false);
    try {
      if (!patch.is_object()) {
        throw std::invalid_argument("a state change is a JSON object");
      }
      state_.merge(patch);
    } catch (const std::exception& e) {
      response.status = 400;
      response.set_content(nlohmann::json{{"error", e.what()}}.dump() + "\n", "application/json");
      return;
    }
    response.set_content(state_.snapshot().dump(2), "application/json");
  });
  // The streamed uploads: their bodies go to the store as they arrive.
  server_->Post(
      R"(/TallowboxRestService/(MAC/SharedFiles\.svc/(?:UpdateSendFileToTransfer|UploadFileWithStream)))",
      [this](const httplib::Request& request, httplib::Response& response,
             const httplib::ContentReader& content) {
        Request recorded{request.method, request.matches[1].str(), headersOf(request), "",
                         std::chrono::steady_clock::now()};
        // The log keeps a body's first MiB; the store takes all of it.
        auto note = [&recorded](const char* data, std::size_t length) {
          constexpr std::size_t kNoted = 1 << 20;
          if (recorded.body.size() < kNoted) {
            recorded.body.append(data, std::min(length, kNoted - recorded.body.size()));
          }
        };
        std::optional<Reply> scripted;
        {
          std::lock_guard lock(mutex_);
          auto found = scripts_.find(recorded.operation);
          if (found != scripts_.end() && !found->second.empty()) scripted = found->second.front();
        }
        std::optional<nlohmann::json> answer;
        if (scripted) {
          content([&](const char* data, std::size_t length) {
            note(data, length);
            return true;
          });
        } else {
          answer = state_.receive(
              recorded.operation,
              [&](const std::string& name) { return request.get_header_value(name); },
              [&](const std::function<bool(const char*, std::size_t)>& sink) {
                return content([&](const char* data, std::size_t length) {
                  note(data, length);
                  return sink(data, length);
                });
              });
        }
        {
          std::lock_guard lock(mutex_);
          requests_.push_back(recorded);
        }
        if (scripted) {
          response.status = scripted->status;
          response.set_content(scripted->body, scripted->contentType);
          return;
        }
        if (!answer) {
          // Drops the connection before any answer.
          response.set_content_provider(1, "application/json",
                                        [](std::size_t /*offset*/, std::size_t /*length*/,
                                           httplib::DataSink& /*sink*/) { return false; });
          return;
        }
        while (state_.fault("holdUploadAnswers") == true) {
          if (!pause(std::chrono::milliseconds(10))) return;
        }
        response.set_content(answer->dump(), "application/json");
      });
  server_->Post(R"(/TallowboxRestService/(.*))", [this](const httplib::Request& request,
                                                        httplib::Response& response) {
    Request recorded{request.method, request.matches[1].str(), headersOf(request), request.body,
                     std::chrono::steady_clock::now()};
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(recorded);
    }
    if (!hasScript(recorded.operation)) {
      if (std::optional<ServerState::Download> download =
              state_.download(recorded.operation, recorded.body)) {
        serve(*download, response);
        return;
      }
    }
    Reply reply = nextReply(recorded.operation, recorded.body);
    if (reply.delay.count() > 0 && !pause(reply.delay)) return;
    response.status = reply.status;
    auto body = std::make_shared<std::string>(std::move(reply.body));
    if (reply.dropAfter) {
      std::size_t cut = std::min(*reply.dropAfter, body->size());
      response.set_content_provider(
          body->size() + 1, reply.contentType,
          [body, cut](size_t offset, size_t /*length*/, httplib::DataSink& sink) {
            if (offset < cut) sink.write(body->data() + offset, cut - offset);
            return offset < cut;  // false drops the connection
          });
    } else if (reply.neverEnds) {
      response.set_chunked_content_provider(
          reply.contentType,
          [this, sent = false](size_t /*offset*/, httplib::DataSink& sink) mutable {
            if (!sent) {
              sent = sink.write("{", 1);
              return sent;
            }
            return pause(std::chrono::milliseconds(100));
          });
    } else if (reply.chunkSize > 0) {
      std::size_t chunk = reply.chunkSize;
      response.set_chunked_content_provider(
          reply.contentType, [body, chunk](size_t offset, httplib::DataSink& sink) {
            if (offset >= body->size()) {
              sink.done();
              return true;
            }
            return sink.write(body->data() + offset, std::min(chunk, body->size() - offset));
          });
    } else {
      response.set_content(*body, reply.contentType);
    }
  });
}
