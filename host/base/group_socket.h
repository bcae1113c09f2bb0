// SPDX-License-Identifier: MIT
// A UDP socket that sends to a multicast group through one adapter.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "host/base/address.h"
#include "host/base/file_descriptor.h"
#include "host/base/socket_address.h"

namespace ipplay {

class GroupSocket {
 public:
  // From an address of the adapter's own; `hops` is the TTL or hop limit. Without one errno says
  // why.
  static std::optional<GroupSocket> Open(const std::string& adapter, const IpAddress& source,
                                         const IpAddress& group, std::uint16_t port, int hops);

  // Does not wait. False with errno.
  bool Send(std::span<const std::uint8_t> datagram) const;

 private:
  GroupSocket(FileDescriptor fd, const SocketAddress& to);

  FileDescriptor fd_;
  SocketAddress to_;
};

}  // namespace ipplay
