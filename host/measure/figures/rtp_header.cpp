// SPDX-License-Identifier: MIT
#include "host/measure/figures/rtp_header.h"

#include "host/base/byte_order.h"

namespace ipplay::measure {
namespace {

constexpr std::size_t kFixedHeaderLength = 12;

}  // namespace

std::optional<RtpHeader> ParseRtpHeader(std::span<const std::uint8_t> datagram,
                                        std::size_t length) {
  if (datagram.size() < kFixedHeaderLength) {
    return std::nullopt;
  }
  RtpHeader rtp;
  rtp.version = datagram[0] >> 6;
  rtp.payload_type = datagram[1] & 0x7F;
  rtp.marker = (datagram[1] & 0x80) != 0;
  rtp.sequence_number = LoadBe16(&datagram[2]);
  rtp.timestamp = LoadBe32(&datagram[4]);
  rtp.ssrc = LoadBe32(&datagram[8]);

  const bool has_extension = (datagram[0] & 0x10) != 0;
  rtp.header_length = kFixedHeaderLength + std::size_t{datagram[0] & 0x0FU} * 4;
  if (has_extension) {
    if (datagram.size() < rtp.header_length + 4) {
      return std::nullopt;
    }
    rtp.header_length += 4 + std::size_t{LoadBe16(&datagram[rtp.header_length + 2])} * 4;
  }
  if (datagram.size() < rtp.header_length) {
    return std::nullopt;
  }

  const bool has_padding = (datagram[0] & 0x20) != 0;
  if (has_padding && datagram.size() == length) {
    rtp.padding = datagram.back();
    if (rtp.padding == 0 || rtp.padding > length - rtp.header_length) {
      return std::nullopt;
    }
  }
  return rtp;
}

}  // namespace ipplay::measure
