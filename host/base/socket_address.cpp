// SPDX-License-Identifier: MIT
#include "host/base/socket_address.h"

#include <cstring>

namespace ipplay {

SocketAddress ToSockaddr(const IpAddress& address, std::uint16_t port, unsigned interface) {
  SocketAddress result;
  if (address.is_v6) {
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    v6.sin6_scope_id = address.IsLinkLocal() ? interface : 0;
    std::memcpy(&v6.sin6_addr, address.bytes.data(), sizeof v6.sin6_addr);
    std::memcpy(&result.storage, &v6, result.length = sizeof v6);
  } else {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    std::memcpy(&v4.sin_addr, address.bytes.data(), sizeof v4.sin_addr);
    std::memcpy(&result.storage, &v4, result.length = sizeof v4);
  }
  return result;
}

std::optional<IpAddress> FromSockaddr(const sockaddr* address) {
  if (address == nullptr) {
    return std::nullopt;
  }
  IpAddress ip;
  if (address->sa_family == AF_INET) {
    sockaddr_in v4{};
    std::memcpy(&v4, address, sizeof v4);
    std::memcpy(ip.bytes.data(), &v4.sin_addr, sizeof v4.sin_addr);
    return ip;
  }
  if (address->sa_family == AF_INET6) {
    sockaddr_in6 v6{};
    std::memcpy(&v6, address, sizeof v6);
    ip.is_v6 = true;
    std::memcpy(ip.bytes.data(), &v6.sin6_addr, sizeof v6.sin6_addr);
    return ip;
  }
  return std::nullopt;
}

}  // namespace ipplay
