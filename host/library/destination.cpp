// SPDX-License-Identifier: MIT
#include "host/library/destination.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/base/library_output.h"
#include "host/base/next_hop.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {
namespace {

bool IsOwn(const Adapter& adapter, const IpAddress& address) {
  const std::vector<IpAddress>& own = address.is_v6 ? adapter.ipv6 : adapter.ipv4;
  return std::find(own.begin(), own.end(), address) != own.end();
}

bool Ask(const Adapter& adapter, const IpAddress& address, MacAddress& mac) {
  const LibrarySilence silence(LibrarySilence::Of::kOutputAndErrors);
  std::uint8_t* bytes = mac.data();
  return GetMacAddressForIP(IPPLAYOUT_IPV4, address.bytes.data(), &bytes,
                            static_cast<int>(adapter.index)) == 1;
}

}  // namespace

std::optional<Destination> DestinationWithoutAsking(const Adapter& adapter,
                                                    const IpAddress& address) {
  if (address.IsMulticast()) {
    return Destination{MulticastMac(address), "multicast mapping"};
  }
  if (address.IsLimitedBroadcast() || IsSubnetBroadcast(adapter, address)) {
    return Destination{{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, "broadcast"};
  }
  if (IsOwn(adapter, address)) {
    return Destination{adapter.mac, "the adapter's own address"};
  }
  return std::nullopt;
}

Result<Destination> FindDestination(const Adapter& adapter, const IpAddress& address) {
  if (const auto known = DestinationWithoutAsking(adapter, address)) {
    return *known;
  }
  Destination destination;
  // The library itself asks for IPv6 neighbours on the link only, from an adapter's only address.
  if (address.is_v6) {
    if (const auto hop = FindNextHop(address, adapter.name)) {
      destination.mac = hop->mac;
      destination.how =
          hop->router ? fmt::format("neighbour discovery, of the router {}", FormatIp(*hop->router))
                      : "neighbour discovery";
      return destination;
    }
    return Failure{ExitStatus::kFailed,
                   fmt::format("{} does not answer on {}, and no router does; give the MAC address "
                               "with --dst-mac",
                               FormatIp(address), adapter.name)};
  }
  if (!Ask(adapter, address, destination.mac)) {
    return Failure{ExitStatus::kFailed,
                   fmt::format("{} does not answer on {}; give its MAC address with --dst-mac",
                               FormatIp(address), adapter.name)};
  }
  destination.how = IsOnSubnet(adapter, address) ? "ARP" : "ARP, through the gateway if it has one";
  return destination;
}

}  // namespace ipplay
