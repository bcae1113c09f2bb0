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

}  // namespace ipplay
