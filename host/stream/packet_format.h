// SPDX-License-Identifier: MIT
// How a stream is cut into packets, recognised by the sync bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace ipplay {

inline constexpr std::uint8_t kSyncByte = 0x47;  // ISO/IEC 13818-1, 2.4.3.2

// 188: ISO/IEC 13818-1 transport packets. 192: the same behind a 4-byte time stamp (TTS).
// 204: the same before 16 bytes of Reed-Solomon parity. 0: raw bytes without packets.
struct PacketFormat {
  std::uint32_t packet_bytes = 0;

  bool IsRaw() const { return packet_bytes == 0; }
  // Where the transport packet starts within a packet.
  std::uint32_t SyncOffset() const { return packet_bytes == 192 ? 4 : 0; }
  // Bytes of each packet that count in the stream's bit rate.
  std::uint32_t CountedBytes() const { return packet_bytes == 192 ? 188 : packet_bytes; }

  bool operator==(const PacketFormat&) const = default;
};

struct Detection {
  std::optional<PacketFormat> format;
  std::uint64_t first_packet = 0;  // offset of the first whole packet, when there is a format
  std::uint64_t sync_lost = 0;     // otherwise: offset of the first sync byte that is missing
};

// Looks for packets at the head of a stream. `head` should hold 8 packets and a packet's length
// more, or the whole stream where that is shorter (`whole`). Other bytes may come before the first
// packet, as in a recording that was cut anywhere, and sync bytes may be damaged.
Detection DetectPacketFormat(std::span<const std::uint8_t> head, bool whole);

// Bytes of an undamaged stream that DetectPacketFormat needs, and how far into a stream packets are
// looked for.
inline constexpr std::size_t kDetectionBytes = 10 * std::size_t{204};
inline constexpr std::size_t kLongestHead = std::size_t{1} << 20;

}  // namespace ipplay
