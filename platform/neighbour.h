// SPDX-License-Identifier: MIT
// IPv4 neighbours and next hops, as the kernel knows or finds them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/addresses.h"

namespace ipplayout::platform {

// How an address resolution ended; hosts see the numbers in messages.
enum class NeighbourResult : int {
  kDone = 0,
  kGeneralFailure = 31,    // the kernel could not be asked
  kBadNetName = 67,        // nobody answered, or the target is behind a gateway
  kInvalidParameter = 87,  // no address that a neighbour could have
  kBufferOverflow = 111,   // the link-layer address has more than 6 bytes
  kNotFound = 1168,        // no route
  kInvalidUserBuffer = 1784,
};

struct NeighbourReply {
  static constexpr std::uint8_t kUnset = 0xFF;

  NeighbourResult result = NeighbourResult::kGeneralFailure;
  // 6, or 0 when neighbours on the interface have no link-layer address. Counts when kDone.
  std::uint32_t length = 0;
  MacAddress address{kUnset, kUnset, kUnset, kUnset, kUnset, kUnset};
};

// Any thread; a call works in the network namespace of its thread.
class NeighbourService {
 public:
  virtual ~NeighbourService() = default;

  // Finds the link-layer address of an IPv4 neighbour, from the kernel's neighbour table or by
  // ARP. Blocks until the neighbour answers or the kernel gives up, at most about five seconds. The
  // neighbour is looked for behind `interface` if that has a route to it, else where the system's
  // routes point. An own address gives the MAC address of its interface, a broadcast address
  // ff:ff:ff:ff:ff:ff, a multicast address the mapped one (RFC 1112).
  virtual NeighbourReply ResolveNeighbour(const Ipv4Address& target,
                                          const std::string& interface) = 0;

  // The next hop of the best route from `source` (0.0.0.0: any) to `target`, preferring routes
  // through `interface`; 0.0.0.0 when the target is on the link. Nothing without a route.
  virtual std::optional<Ipv4Address> BestRoute(const Ipv4Address& target, const Ipv4Address& source,
                                               const std::string& interface) = 0;
};

// The kernel's; lives as long as the library.
NeighbourService& SystemNeighbours();

}  // namespace ipplayout::platform
