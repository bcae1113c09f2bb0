// SPDX-License-Identifier: MIT
#include "host/base/route.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>

#include "host/base/file_descriptor.h"

namespace ipplay {
namespace {

std::optional<IpAddress> FromSockaddr(const sockaddr* address) {
  if (address == nullptr) {
    return std::nullopt;
  }
  IpAddress ip;
  if (address->sa_family == AF_INET) {
    sockaddr_in v4{};
    std::memcpy(&v4, address, sizeof v4);
    std::memcpy(ip.bytes.data(), &v4.sin_addr, 4);
    return ip;
  }
  if (address->sa_family == AF_INET6) {
    sockaddr_in6 v6{};
    std::memcpy(&v6, address, sizeof v6);
    ip.is_v6 = true;
    std::memcpy(ip.bytes.data(), &v6.sin6_addr, 16);
    return ip;
  }
  return std::nullopt;
}

// The address that the system would send from. Connecting a UDP socket sends nothing.
std::optional<IpAddress> RouteSource(const IpAddress& address) {
  const FileDescriptor fd(
      ::socket(address.is_v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_storage peer{};
  socklen_t length = 0;
  if (address.is_v6) {
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(9);
    std::memcpy(&v6.sin6_addr, address.bytes.data(), 16);
    std::memcpy(&peer, &v6, length = sizeof v6);
  } else {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(9);
    std::memcpy(&v4.sin_addr, address.bytes.data(), 4);
    std::memcpy(&peer, &v4, length = sizeof v4);
    const int on = 1;
    ::setsockopt(fd.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  }
  if (!fd.IsOpen() || ::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&peer), length) != 0) {
    return std::nullopt;
  }
  sockaddr_storage own{};
  length = sizeof own;
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
