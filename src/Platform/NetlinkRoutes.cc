#include "Platform/NetlinkRoutes.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>

#include <cstring>
#include <memory>

namespace {

constexpr std::uint32_t kReachable = 2;
constexpr std::uint32_t kIsDirect = 0x20000;

struct SocketDeleter {
  void operator()(nl_sock* s) const { nl_socket_free(s); }
};
struct CacheDeleter {
  void operator()(nl_cache* c) const { nl_cache_free(c); }
};

// The target's address bytes and family; the zero address has length 0.
struct Wanted {
  int family = AF_UNSPEC;
  unsigned char bytes[16] = {};
  int length = 0;
  bool anyDefault = false;  // the zero address, or a host name
};

Wanted wantedFor(const ReachabilityTarget& target) {
  Wanted w;
  if (target.isHostName()) {
    w.anyDefault = true;
    return w;
  }
  if (target.address.ss_family == AF_INET) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(&target.address);
    w.family = AF_INET;
    w.length = 4;
    std::memcpy(w.bytes, &in->sin_addr, 4);
    w.anyDefault = in->sin_addr.s_addr == 0;
  } else if (target.address.ss_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&target.address);
    w.family = AF_INET6;
    w.length = 16;
    std::memcpy(w.bytes, &in6->sin6_addr, 16);
    w.anyDefault = IN6_IS_ADDR_UNSPECIFIED(&in6->sin6_addr);
  }
  return w;
}

bool covers(nl_addr* dst, const Wanted& w, int& prefixLength) {
  prefixLength = dst == nullptr ? 0 : static_cast<int>(nl_addr_get_prefixlen(dst));
  if (prefixLength == 0) return true;
  const auto* bytes = static_cast<const unsigned char*>(nl_addr_get_binary_addr(dst));
  if (bytes == nullptr || static_cast<int>(nl_addr_get_len(dst)) != w.length) return false;
  int whole = prefixLength / 8;
  if (std::memcmp(bytes, w.bytes, static_cast<std::size_t>(whole)) != 0) return false;
  int rest = prefixLength % 8;
  if (rest == 0) return true;
  auto mask = static_cast<unsigned char>(0xFF << (8 - rest));
  return (bytes[whole] & mask) == (w.bytes[whole] & mask);
}

}  // namespace

std::optional<std::uint32_t> NetlinkRoutes::flags(const ReachabilityTarget& target) {
  Wanted wanted = wantedFor(target);
  if (!wanted.anyDefault && wanted.family == AF_UNSPEC) return std::nullopt;

  std::unique_ptr<nl_sock, SocketDeleter> sock(nl_socket_alloc());
  if (!sock || nl_connect(sock.get(), NETLINK_ROUTE) < 0) return std::nullopt;
  nl_cache* rawLinks = nullptr;
  nl_cache* rawRoutes = nullptr;
  if (rtnl_link_alloc_cache(sock.get(), AF_UNSPEC, &rawLinks) < 0) return std::nullopt;
  std::unique_ptr<nl_cache, CacheDeleter> links(rawLinks);
  if (rtnl_route_alloc_cache(sock.get(), AF_UNSPEC, 0, &rawRoutes) < 0) return std::nullopt;
  std::unique_ptr<nl_cache, CacheDeleter> routes(rawRoutes);

  int bestLength = -1;
  std::uint32_t best = 0;
  for (nl_object* o = nl_cache_get_first(routes.get()); o != nullptr; o = nl_cache_get_next(o)) {
    auto* route = reinterpret_cast<rtnl_route*>(o);
    // Routes out (main table) and this machine's own addresses (local table).
    bool out =
        rtnl_route_get_table(route) == RT_TABLE_MAIN && rtnl_route_get_type(route) == RTN_UNICAST;
    bool own =
        rtnl_route_get_table(route) == RT_TABLE_LOCAL && rtnl_route_get_type(route) == RTN_LOCAL;
    if (!out && !(own && !wanted.anyDefault)) continue;
    int family = static_cast<int>(rtnl_route_get_family(route));
    if (family != AF_INET && family != AF_INET6) continue;
    int length = 0;
    if (wanted.anyDefault) {
      nl_addr* dst = rtnl_route_get_dst(route);
      if (dst != nullptr && nl_addr_get_prefixlen(dst) != 0) continue;
    } else if (family != wanted.family || !covers(rtnl_route_get_dst(route), wanted, length)) {
      continue;
    }
    for (int i = 0; i < rtnl_route_get_nnexthops(route); ++i) {
      rtnl_nexthop* hop = rtnl_route_nexthop_n(route, i);
      rtnl_link* link = rtnl_link_get(links.get(), rtnl_route_nh_get_ifindex(hop));
      if (link == nullptr) continue;
      bool up = (rtnl_link_get_flags(link) & IFF_UP) != 0;
      rtnl_link_put(link);
      if (!up || length < bestLength) continue;
      bestLength = length;
      best = kReachable | (rtnl_route_nh_get_gateway(hop) == nullptr ? kIsDirect : 0);
    }
  }
  return best;
}
