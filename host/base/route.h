// SPDX-License-Identifier: MIT
// How the system would send to an address.
#pragma once

#include <optional>
#include <string>

#include "host/base/address.h"

namespace ipplay {

struct Route {
  IpAddress source;
  std::string interface;
};

// Finding out sends nothing.
std::optional<Route> RouteTo(const IpAddress& address);

}  // namespace ipplay
