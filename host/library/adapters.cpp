// SPDX-License-Identifier: MIT
#include "host/library/adapters.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include "host/base/file_descriptor.h"
#include "host/base/numbers.h"
#include "host/library/link.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {
namespace {

std::vector<IpAddress> ParseAll(const char* const* texts, int count) {
  std::vector<IpAddress> addresses;
  for (int i = 0; i < count; ++i) {
    if (const auto address = ParseIp(texts[i])) {
      addresses.push_back(*address);
    }
  }
  return addresses;
}

Adapter FromEntry(const DeviceListEntry& entry, std::uint32_t index) {
  constexpr std::string_view kPrefix = "rpcap://";
  std::string_view name = entry.Name;
  if (name.starts_with(kPrefix)) {
    name.remove_prefix(kPrefix.size());
  }
  Adapter adapter;
  adapter.index = index;
  adapter.name = name;
  adapter.description = entry.Description;
  std::copy(std::begin(entry.MacAddress), std::end(entry.MacAddress), adapter.mac.begin());
  adapter.ipv4 = ParseAll(entry.IPv4Addresses, entry.IPv4AddressCount);
  adapter.ipv4_masks = ParseAll(entry.IPv4Netmasks, entry.IPv4NetmaskCount);
  adapter.ipv6 = ParseAll(entry.IPv6Addresses, entry.IPv6AddressCount);
  const Link link = QueryLink(adapter.name);
  adapter.up = link.up;
  adapter.mtu = link.mtu;
  adapter.speed = link.speed;
  return adapter;
}

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

std::string Names(const std::vector<Adapter>& adapters) {
  std::string names;
  for (const Adapter& adapter : adapters) {
    names += fmt::format("{}{}", names.empty() ? "" : ", ", adapter.name);
  }
  return names.empty() ? "none" : names;
}

IpAddress Masked(const IpAddress& address, const IpAddress& mask) {
  IpAddress masked = address;
  for (std::size_t i = 0; i < 4; ++i) {
    masked.bytes[i] &= mask.bytes[i];
  }
  return masked;
}

// The position of the first subnet of the adapter that holds an IPv4 address.
std::optional<std::size_t> SubnetOf(const Adapter& adapter, const IpAddress& address) {
  const std::size_t count = std::min(adapter.ipv4.size(), adapter.ipv4_masks.size());
  for (std::size_t i = 0; !address.is_v6 && i < count; ++i) {
    const IpAddress& mask = adapter.ipv4_masks[i];
    if (Masked(address, mask) == Masked(adapter.ipv4[i], mask)) {
      return i;
    }
  }
  return std::nullopt;
}

}  // namespace

std::vector<Adapter> ListAdapters() {
  int count = 0;
  const DeviceListEntry* entries = GetListOfDevices(&count);
  std::vector<Adapter> adapters;
  for (int i = 0; entries != nullptr && i < count; ++i) {
    adapters.push_back(FromEntry(entries[i], static_cast<std::uint32_t>(i)));
  }
  return adapters;
}

Result<Adapter> FindAdapter(const std::vector<Adapter>& adapters, const std::string& device) {
  for (const Adapter& adapter : adapters) {
    if (adapter.name == device) {
      return adapter;
    }
  }
  // An interface may be named by a number, so names come first.
  const auto index = ParseNumber(device, 0, UINT32_MAX);
  if (index && *index < adapters.size()) {
    return adapters[*index];
  }
  return Failure{ExitStatus::kNoAccess,
                 fmt::format("--device: no such adapter; allowed are: {}", Names(adapters))};
}

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

Result<Adapter> AdapterByRoute(const std::vector<Adapter>& adapters, const IpAddress& address) {
  const auto route = RouteTo(address);
  if (!route) {
    return Failure{ExitStatus::kNoAccess,
                   fmt::format("--device: needed, since there is no route to {}; allowed are: {}",
                               FormatIp(address), Names(adapters))};
  }
  const auto adapter =
      std::find_if(adapters.begin(), adapters.end(),
                   [&route](const Adapter& item) { return item.name == route->interface; });
  if (adapter != adapters.end()) {
    return *adapter;
  }
  return Failure{
      ExitStatus::kNoAccess,
      fmt::format("--device: needed, since the route to {} leads through {}, which is no "
                  "Ethernet adapter; allowed are: {}",
                  FormatIp(address), route->interface, Names(adapters))};
}

std::optional<IpAddress> SourceAddress(const Adapter& adapter, const IpAddress& address) {
  const std::vector<IpAddress>& own = address.is_v6 ? adapter.ipv6 : adapter.ipv4;
  if (own.empty()) {
    return std::nullopt;
  }
  const auto route = RouteTo(address);
  if (route && route->interface == adapter.name) {
    return route->source;
  }
  if (const auto subnet = SubnetOf(adapter, address)) {
    return own[*subnet];
  }
  const auto scope = std::find_if(own.begin(), own.end(), [&address](const IpAddress& item) {
    return item.IsLinkLocal() == address.IsLinkLocal();
  });
  return scope == own.end() ? own.front() : *scope;
}

bool IsSubnetBroadcast(const Adapter& adapter, const IpAddress& address) {
  const auto subnet = SubnetOf(adapter, address);
  if (!subnet) {
    return false;
  }
  const IpAddress& mask = adapter.ipv4_masks[*subnet];
  // Subnets of one or two addresses have no broadcast address.
  if ((mask.bytes[3] & 0xFE) == 0xFE) {
    return false;
  }
  for (std::size_t i = 0; i < 4; ++i) {
    if ((address.bytes[i] | mask.bytes[i]) != 0xFF) {
      return false;
    }
  }
  return true;
}

bool IsOnSubnet(const Adapter& adapter, const IpAddress& address) {
  return SubnetOf(adapter, address).has_value();
}

}  // namespace ipplay
