// SPDX-License-Identifier: MIT
#include "host/base/group_socket.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <utility>

#include "host/base/socket_option.h"

namespace ipplay {
namespace {

bool SendsThrough(int fd, unsigned interface, bool is_v6, int hops) {
  if (is_v6) {
    return SetOption(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, interface) &&
           SetOption(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, hops);
  }
  ip_mreqn by_index{};
  by_index.imr_ifindex = static_cast<int>(interface);
  return SetOption(fd, IPPROTO_IP, IP_MULTICAST_IF, by_index) &&
         SetOption(fd, IPPROTO_IP, IP_MULTICAST_TTL, hops);
}

}  // namespace

std::optional<GroupSocket> GroupSocket::Open(const std::string& adapter, const IpAddress& source,
                                             const IpAddress& group, std::uint16_t port, int hops) {
  const unsigned interface = ::if_nametoindex(adapter.c_str());
  FileDescriptor fd(
      ::socket(group.is_v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const SocketAddress from = ToSockaddr(source, 0, interface);
  if (interface == 0 || !fd.IsOpen() || !SendsThrough(fd.Get(), interface, group.is_v6, hops) ||
      ::bind(fd.Get(), from.Get(), from.length) != 0) {
    return std::nullopt;
  }
  return GroupSocket(std::move(fd), ToSockaddr(group, port, interface));
}

GroupSocket::GroupSocket(FileDescriptor fd, const SocketAddress& to)
    : fd_(std::move(fd)), to_(to) {}

bool GroupSocket::Send(std::span<const std::uint8_t> datagram) const {
  return ::sendto(fd_.Get(), datagram.data(), datagram.size(), 0, to_.Get(), to_.length) >= 0;
}

}  // namespace ipplay
