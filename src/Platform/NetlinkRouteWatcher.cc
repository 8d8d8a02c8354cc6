#include "Platform/NetlinkRouteWatcher.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

NetlinkRouteWatcher::NetlinkRouteWatcher(std::function<void()> onChange)
    : onChange_(std::move(onChange)) {
  socket_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (socket_ < 0) return;
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups =
      RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (::bind(socket_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
      ::pipe2(stopPipe_, O_CLOEXEC) != 0) {
    ::close(socket_);
    socket_ = -1;
    return;
  }
  thread_ = std::thread([this] { run(); });
}

NetlinkRouteWatcher::~NetlinkRouteWatcher() {
  if (thread_.joinable()) {
    char stop = 1;
    (void)!::write(stopPipe_[1], &stop, 1);
    thread_.join();
  }
  for (int fd : {socket_, stopPipe_[0], stopPipe_[1]}) {
    if (fd >= 0) ::close(fd);
  }
}

void NetlinkRouteWatcher::run() {
  char buffer[16384];
  for (;;) {
    pollfd fds[2] = {{socket_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents != 0) return;
    bool changed = false;
    // Drain everything queued; one notice per wake-up is enough.
    while (::recv(socket_, buffer, sizeof buffer, 0) > 0) changed = true;
    if (changed && onChange_) onChange_();
  }
}
