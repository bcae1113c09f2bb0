// SPDX-License-Identifier: MIT
#include "platform/host_name.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <optional>

namespace ipplayout::platform {
namespace {

Ipv4Address ToIPv4(const sockaddr* address) {
  sockaddr_in ipv4{};
  std::memcpy(&ipv4, address, sizeof ipv4);
  Ipv4Address result{};
  std::memcpy(result.data(), &ipv4.sin_addr, result.size());
  return result;
}

std::optional<Ipv4Address> AddressOfName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) {
    return std::nullopt;
  }
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;  // one entry per address
  addrinfo* first = nullptr;
  if (::getaddrinfo(name, nullptr, &hints, &first) != 0 || first == nullptr) {
    return std::nullopt;
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list(first, freeaddrinfo);
  for (const addrinfo* entry = first; entry != nullptr; entry = entry->ai_next) {
    if (const Ipv4Address address = ToIPv4(entry->ai_addr); address[0] != IN_LOOPBACKNET) {
      return address;
    }
  }
  return std::nullopt;
}

std::optional<Ipv4Address> AddressOfInterfaces() {
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) {
    return std::nullopt;
  }
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> list(first, freeifaddrs);
  for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET &&
        (entry->ifa_flags & IFF_LOOPBACK) == 0) {
      return ToIPv4(entry->ifa_addr);
    }
  }
  return std::nullopt;
}

}  // namespace

Ipv4Address HostAddress() {
  if (const auto named = AddressOfName()) {
    return *named;
  }
  return AddressOfInterfaces().value_or(Ipv4Address{127, 0, 0, 1});
}

}  // namespace ipplayout::platform
