// SPDX-License-Identifier: MIT
// The MAC address that a frame to an IP address needs.
#pragma once

#include <string>

#include "host/base/address.h"
#include "host/base/result.h"
#include "host/library/adapters.h"

namespace ipplay {

struct Destination {
  MacAddress mac{};
  std::string how;  // for people: "multicast mapping", "ARP", ...
};

// The destination that follows from the address alone, without sending; none when a neighbour must
// be asked.
std::optional<Destination> DestinationWithoutAsking(const Adapter& adapter,
                                                    const IpAddress& address);

// The same, asking the neighbour (or the gateway) where needed, which takes up to a few seconds.
Result<Destination> FindDestination(const Adapter& adapter, const IpAddress& address);

}  // namespace ipplay
