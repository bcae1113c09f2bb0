// SPDX-License-Identifier: MIT
#include "host/base/route.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>

#include "host/base/file_descriptor.h"
#include "host/base/socket_address.h"
#include "host/base/socket_option.h"

namespace ipplay {
namespace {

constexpr std::uint16_t kDiscardPort = 9;

// The address that the system would send from. Connecting a UDP socket sends nothing.
std::optional<IpAddress> RouteSource(const IpAddress& address) {
  const FileDescriptor fd(
      ::socket(address.is_v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  SetOption(fd.Get(), SOL_SOCKET, SO_BROADCAST, on);
  const SocketAddress peer = ToSockaddr(address, kDiscardPort, 0);
  if (!fd.IsOpen() || ::connect(fd.Get(), peer.Get(), peer.length) != 0) {
    return std::nullopt;
  }
  sockaddr_storage own{};
  socklen_t length = sizeof own;
  if (::getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&own), &length) != 0) {
    return std::nullopt;
  }
  return FromSockaddr(reinterpret_cast<const sockaddr*>(&own));
}

}  // namespace

std::optional<Route> RouteTo(const IpAddress& address) {
  const auto source = RouteSource(address);
  if (!source) {
    return std::nullopt;
  }
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    return std::nullopt;
  }
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (FromSockaddr(entry->ifa_addr) == source) {
      return Route{*source, entry->ifa_name};
    }
  }
  return std::nullopt;
}

}  // namespace ipplay
