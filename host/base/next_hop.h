// SPDX-License-Identifier: MIT
// Who on the link takes packets for an IPv6 address, by the kernel's routes and neighbour table.
#pragma once

#include <optional>
#include <string>

#include "host/base/address.h"

namespace ipplay {

struct NextHop {
  MacAddress mac{};
  std::optional<IpAddress> router;  // none: the address itself is on the link
};

// Has the kernel look for the neighbour if it does not know it, which sends an empty datagram to
// its discard port and takes up to four seconds. Nothing without a route through `interface`, and
// when nobody answers.
std::optional<NextHop> FindNextHop(const IpAddress& address, const std::string& interface);

}  // namespace ipplay
