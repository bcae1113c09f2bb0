// SPDX-License-Identifier: MIT
// The RTP header of RFC 3550, 5.1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace ipplay::measure {

struct RtpHeader {
  std::uint8_t version = 0;
  std::uint8_t payload_type = 0;
  bool marker = false;
  std::uint16_t sequence_number = 0;
  std::uint32_t timestamp = 0;
  std::uint32_t ssrc = 0;
  // Of the whole datagram: where the payload starts, and how many padding bytes end it.
  std::size_t header_length = 0;
  std::size_t padding = 0;
};

// Reads the header at the start of `datagram`, whose length on the wire is `length`. None when it
// does not fit, the CSRC list, the extension and the padding included. The version is not judged.
std::optional<RtpHeader> ParseRtpHeader(std::span<const std::uint8_t> datagram, std::size_t length);

}  // namespace ipplay::measure
