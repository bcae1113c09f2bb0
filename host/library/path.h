// SPDX-License-Identifier: MIT
// The way to a playout's target.
#pragma once

#include <optional>

#include "host/base/address.h"
#include "host/library/adapters.h"

namespace ipplay {

// The adapter, and the addresses of both ends.
struct Path {
  Adapter adapter;
  std::optional<IpAddress> source;        // of the adapter, towards the target
  std::optional<MacAddress> destination;  // none until the neighbour is asked
};

}  // namespace ipplay
