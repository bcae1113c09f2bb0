// SPDX-License-Identifier: MIT
#include "platform/interface.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "platform/descriptor.h"

namespace ipplayout::platform {

std::optional<InterfaceProperties> QueryInterface(const std::string& name, int& error) {
  ifreq request{};
  if (name.size() >= sizeof request.ifr_name) {
    error = ENODEV;
    return std::nullopt;
  }
  name.copy(request.ifr_name, name.size());
  const Descriptor query_socket =
      AboveStandard(Descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  if (!query_socket.IsOpen() || ::ioctl(query_socket.Get(), SIOCGIFHWADDR, &request) != 0) {
    error = errno;
    return std::nullopt;
  }
  InterfaceProperties properties;
  const auto type = request.ifr_hwaddr.sa_family;
  properties.ethernet_framed = type == ARPHRD_ETHER || type == ARPHRD_LOOPBACK;
  if (properties.ethernet_framed) {
    std::memcpy(properties.mac.data(), request.ifr_hwaddr.sa_data, properties.mac.size());
  }
  if (::ioctl(query_socket.Get(), SIOCGIFFLAGS, &request) != 0) {
    error = errno;
    return std::nullopt;
  }
  properties.without_neighbours =
      (request.ifr_flags & (IFF_LOOPBACK | IFF_POINTOPOINT | IFF_NOARP)) != 0;
  return properties;
}

unsigned InterfaceIndex(const std::string& name) {
  return ::if_nametoindex(name.c_str());
}

std::string InterfaceName(unsigned index) {
  char name[IF_NAMESIZE] = {};
  return ::if_indextoname(index, name) == nullptr ? std::string() : std::string(name);
}

}  // namespace ipplayout::platform
