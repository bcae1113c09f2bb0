// SPDX-License-Identifier: MIT
// The way to a playout's target.
#pragma once

#include <optional>

#include "host/base/address.h"
#include "host/library/adapters.h"

namespace ipplay {

// What was found out about the way to the target.
struct Path {
  Adapter adapter;
  std::optional<IpAddress> source;        // of the adapter, towards the target
  std::optional<MacAddress> destination;  // nothing before the neighbour was asked
};

}  // namespace ipplay
