// SPDX-License-Identifier: MIT
#include "host/measure/figures/fec_datagram.h"

#include "host/base/byte_order.h"

namespace ipplay::measure {
namespace {

constexpr std::size_t kHeaderLength = 16;
constexpr std::uint8_t kExtended = 0x80;
constexpr std::uint8_t kPayloadType = 0x7F;
constexpr std::uint8_t kRow = 0x40;

}  // namespace

std::optional<FecDatagram> ParseFecDatagram(std::span<const std::uint8_t> payload) {
  if (payload.size() < kHeaderLength) {
    return std::nullopt;
  }
  FecDatagram fec;
  fec.base = LoadBe16(&payload[0]);
  fec.length_parity = LoadBe16(&payload[2]);
  fec.type_parity = payload[4] & kPayloadType;
  fec.time_parity = LoadBe32(&payload[8]);
  fec.is_row = (payload[12] & kRow) != 0;
  fec.offset = payload[13];
  fec.count = payload[14];
  fec.parity = payload.subspan(kHeaderLength);
  const bool has_mask = (payload[5] | payload[6] | payload[7]) != 0;
  const bool is_parity = (payload[4] & kExtended) != 0 && (payload[12] & ~kRow) == 0;
  const bool is_placed = fec.offset > 0 && fec.count > 0 && payload[15] == 0 &&
                         (!fec.is_row || fec.offset == 1) &&
                         fec.Span() <= FecDatagram::kLongestSpan;
  if (has_mask || !is_parity || !is_placed) {
    return std::nullopt;
  }
  return fec;
}

}  // namespace ipplay::measure
