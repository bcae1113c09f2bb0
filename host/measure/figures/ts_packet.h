// SPDX-License-Identifier: MIT
// Header and adaptation field of a transport stream packet, ISO/IEC 13818-1, 2.4.3.2 to 2.4.3.5.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "host/base/byte_order.h"

namespace ipplay::measure {

inline constexpr std::size_t kTsPacketLength = 188;
inline constexpr std::uint8_t kTsSyncByte = 0x47;
inline constexpr std::uint16_t kNullPid = 0x1FFF;
inline constexpr std::size_t kTsPids = 8192;

using TsPacket = std::span<const std::uint8_t, kTsPacketLength>;

inline bool HasTransportError(TsPacket packet) {
  return (packet[1] & 0x80) != 0;
}
inline bool StartsUnit(TsPacket packet) {
  return (packet[1] & 0x40) != 0;
}
inline std::uint16_t PidOf(TsPacket packet) {
  return LoadBe16(&packet[1]) & 0x1FFF;
}
inline bool IsScrambled(TsPacket packet) {
  return (packet[3] & 0xC0) != 0;
}
inline bool HasAdaptation(TsPacket packet) {
  return (packet[3] & 0x20) != 0;
}
inline bool HasPayload(TsPacket packet) {
  return (packet[3] & 0x10) != 0;
}
inline std::uint8_t CounterOf(TsPacket packet) {
  return packet[3] & 0x0F;
}

inline std::uint8_t AdaptationFlags(TsPacket packet) {
  return HasAdaptation(packet) && packet[4] > 0 ? packet[5] : 0;
}
inline bool IsDiscontinuous(TsPacket packet) {
  return (AdaptationFlags(packet) & 0x80) != 0;
}
inline bool HasPcr(TsPacket packet) {
  return (AdaptationFlags(packet) & 0x10) != 0 && packet[4] >= 7;
}

// In ticks of 27 MHz; for packets that have one.
inline std::uint64_t PcrOf(TsPacket packet) {
  const std::uint64_t base =
      (std::uint64_t{LoadBe32(&packet[6])} << 1) | (std::uint64_t{packet[10]} >> 7);
  const std::uint64_t extension = LoadBe16(&packet[10]) & 0x01FFU;
  return base * 300 + extension;
}

inline std::span<const std::uint8_t> PayloadOf(TsPacket packet) {
  if (!HasPayload(packet)) {
    return {};
  }
  const std::size_t start = HasAdaptation(packet) ? std::size_t{5} + packet[4] : 4;
  return start < packet.size() ? packet.subspan(start) : std::span<const std::uint8_t>{};
}

}  // namespace ipplay::measure
