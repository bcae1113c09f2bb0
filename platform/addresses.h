// SPDX-License-Identifier: MIT
// Addresses as the wire carries them, in network order.
#pragma once

#include <array>
#include <cstdint>

namespace ipplayout::platform {

using MacAddress = std::array<std::uint8_t, 6>;
using Ipv4Address = std::array<std::uint8_t, 4>;
using Ipv6Address = std::array<std::uint8_t, 16>;

}  // namespace ipplayout::platform
