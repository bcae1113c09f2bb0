// SPDX-License-Identifier: MIT
#include "host/library/adapters.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "host/base/link.h"
#include "host/base/numbers.h"
#include "host/base/route.h"
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
  // The library's words for an adapter that has none end with the name that only it uses.
  adapter.description = entry.Description;
  if (const auto end = fmt::format(" ({})", entry.Name); adapter.description.ends_with(end)) {
    adapter.description.resize(adapter.description.size() - end.size());
  }
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
                 fmt::format("--device: no such adapter; give one of: {}", Names(adapters))};
}

Result<Adapter> AdapterByRoute(const std::vector<Adapter>& adapters, const IpAddress& address) {
  const auto route = RouteTo(address);
  if (!route) {
    return Failure{ExitStatus::kNoAccess,
                   fmt::format("--device is required: there is no route to {}; give one of: {}",
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
      fmt::format("--device is required: the route to {} leads through {}, which is not an "
                  "Ethernet adapter; give one of: {}",
                  FormatIp(address), route->interface, Names(adapters))};
}

Result<Adapter> ChooseAdapter(const std::vector<Adapter>& adapters, const std::string& device,
                              const Target& target) {
  if (device.empty() && target.zone.empty()) {
    return AdapterByRoute(adapters, target.address);
  }
  auto adapter = FindAdapter(adapters, device.empty() ? target.zone : device);
  if (adapter && !target.zone.empty() && adapter->name != target.zone) {
    return UsageFailure(
        fmt::format("--device and the zone of --to are two adapters, {} and {}; give one",
                    adapter->name, target.zone));
  }
  return adapter;
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
