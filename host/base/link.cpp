// SPDX-License-Identifier: MIT
#include "host/base/link.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "host/base/file_descriptor.h"

namespace ipplay {
namespace {

std::optional<std::uint64_t> QuerySpeed(int socket, ifreq request) {
  ethtool_cmd command{};
  command.cmd = ETHTOOL_GSET;
  request.ifr_data = reinterpret_cast<char*>(&command);
  if (::ioctl(socket, SIOCETHTOOL, &request) != 0) {
    return std::nullopt;
  }
  const std::uint32_t megabits = ethtool_cmd_speed(&command);
  if (megabits == 0 || megabits == static_cast<std::uint32_t>(SPEED_UNKNOWN)) {
    return std::nullopt;
  }
  return std::uint64_t{megabits} * 1'000'000;
}

}  // namespace

Link QueryLink(const std::string& interface) {
  Link link;
  const FileDescriptor socket_fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  if (!socket_fd.IsOpen() || interface.size() >= IFNAMSIZ) {
    return link;
  }
  interface.copy(request.ifr_name, IFNAMSIZ - 1);
  if (::ioctl(socket_fd.Get(), SIOCGIFFLAGS, &request) == 0) {
    link.up = (request.ifr_flags & IFF_UP) != 0 && (request.ifr_flags & IFF_RUNNING) != 0;
  }
  if (::ioctl(socket_fd.Get(), SIOCGIFMTU, &request) == 0) {
    link.mtu = static_cast<std::uint32_t>(request.ifr_mtu);
  }
  link.speed = QuerySpeed(socket_fd.Get(), request);
  return link;
}

}  // namespace ipplay
