// SPDX-License-Identifier: MIT
// An address and a port as system calls take them.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>

#include "host/base/address.h"

namespace ipplay {

struct SocketAddress {
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }

  sockaddr_storage storage{};
  socklen_t length = 0;
};

// `interface` is the index of the adapter, which a link-local address needs.
SocketAddress ToSockaddr(const IpAddress& address, std::uint16_t port, unsigned interface);

// None for null and for other families than IPv4 and IPv6.
std::optional<IpAddress> FromSockaddr(const sockaddr* address);

}  // namespace ipplay
