#include "support/RawReplyServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

RawReplyServer::RawReplyServer() {
  fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd_, 16) != 0 ||
      ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("cannot listen on loopback");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] {
    while (!stopping_) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      int client = ::accept(fd_, nullptr, nullptr);
      if (client < 0) continue;
      char buffer[65536];
      // Read the request's head (and whatever body came with it) before answering.
      pollfd c{client, POLLIN, 0};
      while (::poll(&c, 1, 50) > 0 && ::read(client, buffer, sizeof buffer) > 0) {
      }
      std::shared_ptr<const std::string> reply;
      {
        std::lock_guard lock(mutex_);
        reply = reply_;
      }
      std::size_t done = 0;
      while (done < reply->size()) {
        ssize_t n = ::send(client, reply->data() + done, reply->size() - done, MSG_NOSIGNAL);
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
      }
      ::close(client);
    }
  });
}

RawReplyServer::~RawReplyServer() {
  stopping_ = true;
  thread_.join();
  ::close(fd_);
}

void RawReplyServer::setReply(std::string bytes) {
  std::lock_guard lock(mutex_);
  reply_ = std::make_shared<const std::string>(std::move(bytes));
}

std::string RawReplyServer::baseURL() const {
  return "http://127.0.0.1:" + std::to_string(port_) + "/TallowboxRestService/";
}
