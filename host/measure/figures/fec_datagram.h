// SPDX-License-Identifier: MIT
// The payload of an RTP datagram of forward error correction (SMPTE ST 2022-1, on RFC 2733).
//
//   offset  size
//        0     2  SNBase: number of the first datagram that is protected
//        2     2  length recovery: parity of the lengths behind the RTP header
//        4     1  E = 1, payload type recovery (7 bits)
//        5     3  mask, 0
//        8     4  time stamp recovery
//       12     1  N = 0, D (1: of a row), type = 0 (XOR), index = 0
//       13     1  offset: distance of the numbers that are protected
//       14     1  NA: how many there are
//       15     1  SNBase extension, 0
//       16        parity of the payloads
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace ipplay::measure {

struct FecDatagram {
  // Of the numbers from the first to the last that one datagram may protect. The standard has 100.
  static constexpr std::uint32_t kLongestSpan = 256;

  std::uint16_t base = 0;
  std::uint16_t length_parity = 0;
  std::uint8_t type_parity = 0;
  std::uint32_t time_parity = 0;
  bool is_row = false;
  std::uint32_t offset = 0;
  std::uint32_t count = 0;
  std::span<const std::uint8_t> parity;

  std::uint32_t Span() const { return offset * count; }
};

// None when a field has a value that the standard does not allow, so that it is not FEC.
std::optional<FecDatagram> ParseFecDatagram(std::span<const std::uint8_t> payload);

}  // namespace ipplay::measure
