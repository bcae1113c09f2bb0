// SPDX-License-Identifier: MIT
// State of a network interface as the kernel reports it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ipplay {

struct Link {
  std::optional<bool> up;              // up, with a carrier
  std::optional<std::uint32_t> mtu;    // bytes of an IP packet
  std::optional<std::uint64_t> speed;  // bits per second
};

Link QueryLink(const std::string& interface);

}  // namespace ipplay
