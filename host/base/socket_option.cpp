// SPDX-License-Identifier: MIT
#include "host/base/socket_option.h"

#include <netinet/in.h>

#include "host/base/socket_address.h"

namespace ipplay {

bool JoinGroup(int fd, unsigned interface, const IpAddress& group,
               const std::optional<IpAddress>& source) {
  const int level = group.is_v6 ? IPPROTO_IPV6 : IPPROTO_IP;
  if (source) {
    group_source_req request{};
    request.gsr_interface = interface;
    request.gsr_group = ToSockaddr(group, 0, interface).storage;
    request.gsr_source = ToSockaddr(*source, 0, interface).storage;
    return SetOption(fd, level, MCAST_JOIN_SOURCE_GROUP, request);
  }
  group_req request{};
  request.gr_interface = interface;
  request.gr_group = ToSockaddr(group, 0, interface).storage;
  return SetOption(fd, level, MCAST_JOIN_GROUP, request);
}

}  // namespace ipplay
