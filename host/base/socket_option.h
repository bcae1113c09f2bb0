// SPDX-License-Identifier: MIT
// Options of sockets, and the groups that they join.
#pragma once

#include <sys/socket.h>

#include <optional>

#include "host/base/address.h"

namespace ipplay {

// False with errno.
template <typename Value>
bool SetOption(int fd, int level, int name, const Value& value) {
  return ::setsockopt(fd, level, name, &value, sizeof value) == 0;
}

// From one source, or from all. False with errno.
bool JoinGroup(int fd, unsigned interface, const IpAddress& group,
               const std::optional<IpAddress>& source);

}  // namespace ipplay
