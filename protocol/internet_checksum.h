// SPDX-License-Identifier: MIT
// The Internet checksum (RFC 1071).
#pragma once

#include <cstdint>
#include <span>

namespace ipplayout {

// Complement of the ones'-complement sum of the big-endian 16-bit words of `bytes`. An odd last
// byte is the high byte of a word padded with zero.
std::uint16_t InternetChecksum(std::span<const std::uint8_t> bytes);

}  // namespace ipplayout
