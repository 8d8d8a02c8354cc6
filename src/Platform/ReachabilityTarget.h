#pragma once

#include <sys/socket.h>

#include <string>

// What a reachability question is about: a host name, or a socket address.
struct ReachabilityTarget {
  std::string hostName;        // set for a host-name target
  sockaddr_storage address{};  // family AF_INET or AF_INET6 for an address target
  bool isHostName() const { return !hostName.empty(); }
};
