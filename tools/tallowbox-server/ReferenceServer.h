#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "ServerState.h"

namespace httplib {
class Server;
struct Response;
}  // namespace httplib

// The reference server of the Tallowbox REST service, for tests, the demo and
// benchmarks. It answers POSTs to any operation below "/TallowboxRestService/":
// with the operation's scripted reply when there is one, else from its state
// (pending work per computer, the error log, the bytes of uploads), else
// {"ReturnStatus":"0"}. Every request is recorded (a streamed upload without its
// body). Below "/admin/": GET "state" shows the state and POST
// "state" merges a JSON merge patch into it (see ServerState and Broker for
// what it holds); a patch that is not a JSON object, or that would give the
// state the wrong shape, is answered with HTTP 400 and {"error": why} and
// changes nothing.
class ReferenceServer {
 public:
  // One scripted reply.
  struct Reply {
    int status = 200;
    std::string body = R"({"ReturnStatus":"0"})";
    std::string contentType = "application/json";
    std::chrono::milliseconds delay{0};  // before the reply starts
    // Sends the status line, headers and only this many bytes of the body, then
    // drops the connection.
    std::optional<std::size_t> dropAfter;
    // Sends the headers and a first byte, then nothing until the server stops.
    bool neverEnds = false;
    // Sends the body in chunks of this size (chunked transfer encoding).
    std::size_t chunkSize = 0;
    // How many requests this reply answers before it goes; then the next scripted
    // one answers, or the state when there is none. 0: one request, and every
    // later one when it is the last scripted.
    int times = 0;
  };
  static Reply json(const nlohmann::json& body, int status = 200);
  static Reply raw(std::string bytes, std::string contentType = "application/octet-stream");

  struct Request {
    std::string method;
    std::string operation;  // the path below "/TallowboxRestService/"
    // By name, as the HTTP library keeps them; their order on the wire is seen
    // where a test sends (the environment's sentHeaders).
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    std::chrono::steady_clock::time_point at;           // when it arrived
    std::string header(const std::string& name) const;  // first value, "" when absent
  };

  ReferenceServer();
  ~ReferenceServer();
  ReferenceServer(const ReferenceServer&) = delete;
  ReferenceServer& operator=(const ReferenceServer&) = delete;

  // Keeps uploaded bytes in `folder` (before start); without it the server keeps
  // them in a temporary folder of its own, removed when it is destroyed.
  void setStoreFolder(const std::string& folder);
  // Keeps the state in the file `path` (before start): see ServerState::setStateFile.
  bool setStateFile(const std::string& path) { return state_.setStateFile(path); }

  // Listens on `host`:`port` (0: any free port) in a thread of its own; returns the
  // port. Throws std::runtime_error when it cannot listen.
  int start(const std::string& host = "127.0.0.1", int port = 0);
  void stop();

  int port() const { return port_; }
  // "http://<host>:<port>/TallowboxRestService/"
  std::string baseURL() const;

  // Replies for `operation`, in order; the last one stays for every later request
  // unless it was given a number of `times`.
  void script(const std::string& operation, Reply reply);
  void clearScripts();

  ServerState& state() { return state_; }

  std::vector<Request> requests() const;
  std::vector<Request> requestsFor(const std::string& operation) const;
  void clearRequests();

 private:
  void install();
  // The scripted reply, or the state's answer, or the default reply.
  Reply nextReply(const std::string& operation, const std::string& body);
  bool hasScript(const std::string& operation) const;
  // Answers with a download's bytes, streamed from the store.
  void serve(const ServerState::Download& download, httplib::Response& response);
  // Sleeps up to `duration`; false when the server is stopping.
  bool pause(std::chrono::milliseconds duration);

  std::unique_ptr<httplib::Server> server_;
  ServerState state_;
  std::thread thread_;
  std::string host_ = "127.0.0.1";
  std::string temporaryStore_;  // the store's folder when the server made it
  int port_ = 0;

  mutable std::mutex mutex_;  // guards the members below
  std::condition_variable stopping_;
  bool stopped_ = false;
  std::map<std::string, std::vector<Reply>> scripts_;
  std::vector<Request> requests_;
};
