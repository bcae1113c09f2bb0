// SPDX-License-Identifier: MIT
// The adapters that can be played through, and the choice among them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/base/address.h"
#include "host/base/result.h"

namespace ipplay {

struct Adapter {
  std::uint32_t index = 0;  // as DeviceIndex
  std::string name;         // the interface's name, without the capture library's prefix
  std::string description;
  MacAddress mac{};
  std::vector<IpAddress> ipv4;
  std::vector<IpAddress> ipv4_masks;  // in the order of ipv4; may be fewer
  std::vector<IpAddress> ipv6;
  // Of the link; none where the system does not report it.
  std::optional<bool> up;
  std::optional<std::uint32_t> mtu;
  std::optional<std::uint64_t> speed;  // bits per second
};

// The adapters as the library lists them, after InitIpPlayout.
std::vector<Adapter> ListAdapters();

// The adapter with this name or number; the failure lists the names.
Result<Adapter> FindAdapter(const std::vector<Adapter>& adapters, const std::string& device);

// The adapter that the route to `address` uses.
Result<Adapter> AdapterByRoute(const std::vector<Adapter>& adapters, const IpAddress& address);

// The adapter named, that of the target's zone, or else that of the route to it.
Result<Adapter> ChooseAdapter(const std::vector<Adapter>& adapters, const std::string& device,
                              const Target& target);

// The address of `adapter` to send from to `address`: the one that the route uses, or else one on
// the same subnet or of the same scope, or else the first. Nothing when it has none of the version.
std::optional<IpAddress> SourceAddress(const Adapter& adapter, const IpAddress& address);

// Whether an IPv4 address is the broadcast address of one of the adapter's subnets.
bool IsSubnetBroadcast(const Adapter& adapter, const IpAddress& address);
// Whether an IPv4 address is on one of the adapter's subnets.
bool IsOnSubnet(const Adapter& adapter, const IpAddress& address);

}  // namespace ipplay
