#include "HeaderOrderRelay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <string_view>

namespace {

constexpr int kPollMilliseconds = 50;
constexpr std::size_t kMaxHeaderBlock = 1 << 20;

void closeQuietly(int fd) {
  if (fd >= 0) static_cast<void>(::close(fd));
}

int localPort(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
  return ntohs(address.sin_port);
}

// Waits for room rather than blocking, so that stopping never waits on a client
// that stopped reading.
bool sendAll(int fd, const char* data, std::size_t size, const std::atomic<bool>& stopping) {
  while (size > 0) {
    ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
      pollfd room{fd, POLLOUT, 0};
      static_cast<void>(::poll(&room, 1, kPollMilliseconds));
      if (stopping) return false;
      continue;
    }
    if (sent <= 0) return false;
    data += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

// "Name: value" lines after the request line, up to the blank line.
HeaderOrderRelay::Headers parseHeaderBlock(std::string_view block) {
  HeaderOrderRelay::Headers headers;
  std::size_t start = block.find("\r\n");
  while (start != std::string_view::npos) {
    start += 2;
    std::size_t end = block.find("\r\n", start);
    if (end == std::string_view::npos || end == start) break;
    std::string_view line = block.substr(start, end - start);
    std::size_t colon = line.find(':');
    if (colon != std::string_view::npos) {
      std::string_view value = line.substr(colon + 1);
      while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
        value.remove_prefix(1);
      }
      headers.emplace_back(std::string(line.substr(0, colon)), std::string(value));
    }
    start = end;
  }
  return headers;
}

}  // namespace

HeaderOrderRelay::~HeaderOrderRelay() { stop(); }

int HeaderOrderRelay::start(const std::string& host, int port, int upstreamPort) {
  upstreamPort_ = upstreamPort;
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int yes = 1;
  static_cast<void>(::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (listener_ < 0 || ::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1 ||
      ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_, SOMAXCONN) != 0) {
    closeQuietly(listener_);
    listener_ = -1;
    throw std::runtime_error("cannot listen on " + host + ":" + std::to_string(port));
  }
  acceptor_ = std::thread([this] { acceptLoop(); });
  return localPort(listener_);
}

void HeaderOrderRelay::stop() {
  stopping_ = true;
  if (acceptor_.joinable()) acceptor_.join();
  std::map<std::thread::id, std::thread> connections;
  {
    std::lock_guard lock(mutex_);
    connections.swap(connections_);
    finished_.clear();
  }
  for (auto& [id, connection] : connections) connection.join();
  closeQuietly(listener_);
  listener_ = -1;
}

HeaderOrderRelay::Headers HeaderOrderRelay::takeHeaders(int relayPort) {
  std::lock_guard lock(mutex_);
  auto it = headersByPort_.find(relayPort);
  if (it == headersByPort_.end()) return {};
  Headers headers = std::move(it->second);
  headersByPort_.erase(it);
  return headers;
}

void HeaderOrderRelay::acceptLoop() {
  while (!stopping_) {
    pollfd ready{listener_, POLLIN, 0};
    if (::poll(&ready, 1, kPollMilliseconds) <= 0) continue;
    int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    std::vector<std::thread> finished;
    {
      std::lock_guard lock(mutex_);
      for (std::thread::id id : finished_) {
        auto it = connections_.find(id);
        if (it != connections_.end()) {
          finished.push_back(std::move(it->second));
          connections_.erase(it);
        }
      }
      finished_.clear();
      std::thread connection([this, client] {
        relay(client);
        std::lock_guard ended(mutex_);
        finished_.push_back(std::this_thread::get_id());
      });
      std::thread::id id = connection.get_id();
      connections_.emplace(id, std::move(connection));
    }
    for (std::thread& done : finished) done.join();
  }
}

void HeaderOrderRelay::relay(int client) {
  int upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(upstreamPort_));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (upstream < 0 ||
      ::connect(upstream, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    closeQuietly(upstream);
    closeQuietly(client);
    return;
  }
  const int port = localPort(upstream);

  // Bytes are passed on as they come; the header block is noted once it is complete.
  std::string headerBlock;
  bool noted = false;
  std::array<pollfd, 2> ends{pollfd{client, POLLIN, 0}, pollfd{upstream, POLLIN, 0}};
  std::array<bool, 2> open{true, true};
  std::array<char, std::size_t{64} * 1024> buffer{};
  while (!stopping_ && (open[0] || open[1])) {
    for (std::size_t i = 0; i < ends.size(); ++i) ends[i].events = open[i] ? POLLIN : 0;
    if (::poll(ends.data(), ends.size(), kPollMilliseconds) <= 0) continue;
    for (std::size_t i = 0; i < ends.size(); ++i) {
      if (!open[i] || ends[i].revents == 0) continue;
      int from = ends[i].fd;
      int to = ends[1 - i].fd;
      ssize_t got = ::recv(from, buffer.data(), buffer.size(), 0);
      if (got < 0 && errno == EINTR) continue;
      // Noted before the block's last bytes go on, so the server never sees the
      // request before its headers are here.
      if (got > 0 && i == 0 && !noted && headerBlock.size() < kMaxHeaderBlock) {
        headerBlock.append(buffer.data(), static_cast<std::size_t>(got));
        std::size_t end = headerBlock.find("\r\n\r\n");
        if (end != std::string::npos) {
          noted = true;
          std::lock_guard lock(mutex_);
          headersByPort_[port] = parseHeaderBlock(std::string_view(headerBlock).substr(0, end + 2));
        }
      }
      if (got <= 0 || !sendAll(to, buffer.data(), static_cast<std::size_t>(got), stopping_)) {
        open[i] = false;
        static_cast<void>(::shutdown(to, SHUT_WR));
        if (got < 0) open[1 - i] = false;
      }
    }
  }
  closeQuietly(upstream);
  closeQuietly(client);
}
