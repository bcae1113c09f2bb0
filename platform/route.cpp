// SPDX-License-Identifier: MIT
#include "platform/route.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>

#include "platform/interface.h"
#include "platform/netlink.h"

namespace ipplayout::platform {
namespace {

constexpr Ipv4Address kAnyAddress{};

struct Lookup {
  Ipv4Address target;
  Ipv4Address source = kAnyAddress;
  unsigned interface_index = 0;  // 0: any
  // Ask for the routing table's entry rather than for the decision. The decision never fails for a
  // given interface: without an entry the kernel takes every target for a neighbour.
  bool table_entry = false;
};

std::optional<Route> ParseRoute(const nlmsghdr& message) {
  const NetlinkAttributes attributes(message, sizeof(rtmsg));
  Route route;
  switch (NetlinkHeader<rtmsg>(message).rtm_type) {
    case RTN_UNICAST:
    case RTN_MULTICAST:
      break;
    case RTN_LOCAL:
      route.kind = Route::Kind::kOwnAddress;
      break;
    case RTN_BROADCAST:
      route.kind = Route::Kind::kBroadcast;
      break;
    default:
      return std::nullopt;
  }
  route.interface_index = attributes.Number(RTA_OIF, 0);
  const auto gateway = attributes.Bytes(RTA_GATEWAY);
  if (gateway.size() == sizeof(Ipv4Address)) {
    std::copy(gateway.begin(), gateway.end(), route.gateway.emplace().begin());
  }
  route.on_link = !route.gateway && attributes.Bytes(RTA_VIA).empty();
  return route;
}

std::optional<Route> Ask(NetlinkSocket& kernel, const Lookup& lookup) {
  NetlinkRequest request(RTM_GETROUTE, 0);
  auto& header = request.AddHeader<rtmsg>();
  header.rtm_family = AF_INET;
  header.rtm_dst_len = 32;
  header.rtm_src_len = lookup.source == kAnyAddress ? 0 : 32;
  header.rtm_flags = lookup.table_entry ? RTM_F_FIB_MATCH : 0;
  request.AddBytes(RTA_DST, lookup.target);
  if (lookup.source != kAnyAddress) {
    request.AddBytes(RTA_SRC, lookup.source);
  }
  if (lookup.interface_index != 0) {
    request.AddNumber(RTA_OIF, lookup.interface_index);
  }
  std::optional<Route> route;
  const int error =
      kernel.Exchange(request, [&route](const nlmsghdr& message) { route = ParseRoute(message); });
  return error == 0 ? route : std::nullopt;
}

}  // namespace

std::optional<Route> FindRoute(const Ipv4Address& target, const Ipv4Address& source,
                               const std::string& interface) {
  NetlinkSocket kernel(0);
  if (!kernel.IsOpen()) {
    return std::nullopt;
  }
  // The table's entry names the interface that owns an address; the decision would say loopback.
  const auto entry = Ask(kernel, {target, source, 0, true});
  if (entry && entry->kind == Route::Kind::kOwnAddress) {
    return entry;
  }
  const unsigned index = interface.empty() ? 0 : InterfaceIndex(interface);
  if (index != 0 && Ask(kernel, {target, source, index, true})) {
    return Ask(kernel, {target, source, index, false});
  }
  return Ask(kernel, {target, source, 0, false});
}

}  // namespace ipplayout::platform
