// SPDX-License-Identifier: MIT
// The headers of the first datagram, byte for byte, as the settings define them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "ipplayout/ipplayout.h"

namespace ipplay {

// A header field, in the order of the wire. Fields smaller than a byte share their bytes.
struct FrameField {
  std::uint32_t offset = 0;
  std::vector<std::uint8_t> bytes;
  std::string name;
  std::string value;
  bool open = false;  // decided at the start (random, or an address still to be found); the bytes
                      // may differ
};

// `payload` is the datagram's. If a field of the UDP datagram is open, so is its checksum.
std::vector<FrameField> FirstFrameFields(const IPPlayParams& params, bool destination_known,
                                         std::span<const std::uint8_t> payload);

}  // namespace ipplay
