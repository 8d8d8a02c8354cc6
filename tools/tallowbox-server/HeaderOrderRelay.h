#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// A loopback relay in front of the HTTP server that notes each request's header
// lines in the order they came on the wire (the HTTP library keeps them sorted by
// name). It passes every byte through unchanged, both ways, and closes each side
// when the other does, so dropped and endless replies reach the client as they are.
class HeaderOrderRelay {
 public:
  using Headers = std::vector<std::pair<std::string, std::string>>;

  HeaderOrderRelay() = default;
  ~HeaderOrderRelay();
  HeaderOrderRelay(const HeaderOrderRelay&) = delete;
  HeaderOrderRelay& operator=(const HeaderOrderRelay&) = delete;

  // Listens on `host`:`port` (0: any free port) and relays to 127.0.0.1:`upstreamPort`.
  // Returns the port. Throws std::runtime_error when it cannot listen.
  int start(const std::string& host, int port, int upstreamPort);
  void stop();

  // The headers of the request that reached the upstream server from local port
  // `relayPort` (the server sees it as the client's port); empty when unknown.
  // Each connection carries one request.
  Headers takeHeaders(int relayPort);

 private:
  void acceptLoop();
  void relay(int client);

  int listener_ = -1;
  int upstreamPort_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;

  std::mutex mutex_;  // guards the members below
  std::map<std::thread::id, std::thread> connections_;
  std::vector<std::thread::id> finished_;  // relays that ended, to be joined
  std::map<int, Headers> headersByPort_;
};
