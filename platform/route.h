// SPDX-License-Identifier: MIT
// The kernel's IPv4 routing decisions.
#pragma once

#include <optional>
#include <string>

#include "platform/addresses.h"

namespace ipplayout::platform {

struct Route {
  enum class Kind { kOther, kOwnAddress, kBroadcast };
  Kind kind = Kind::kOther;
  unsigned interface_index = 0;
  bool on_link = true;  // the target itself is the neighbour
  // When not on link; nothing for a gateway that only has an IPv6 address.
  std::optional<Ipv4Address> gateway;
};

// Nothing when the target cannot be reached. `source` is an address of this machine, or 0.0.0.0 for
// any. Routes through `interface` win where there are any; empty, or one without a route to the
// target, leaves the choice to the system.
std::optional<Route> FindRoute(const Ipv4Address& target, const Ipv4Address& source,
                               const std::string& interface);

}  // namespace ipplayout::platform
