// SPDX-License-Identifier: MIT
// Targets whose host is given by name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/address.h"

namespace ipplay {

struct NamedTarget {
  bool rtp = false;
  std::string host;
  std::uint16_t port = 0;
};

// "rtp://stb-7.lab:5004"; nothing for what cannot be the name of a host.
std::optional<NamedTarget> SplitNamedTarget(std::string_view text);

// As the system resolves it, IPv4 first; waits for its answer.
std::optional<IpAddress> AddressOfHost(const std::string& host);

}  // namespace ipplay
