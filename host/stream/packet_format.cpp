// SPDX-License-Identifier: MIT
#include "host/stream/packet_format.h"

#include <algorithm>
#include <array>

namespace ipplay {
namespace {

constexpr std::uint8_t kSyncByte = 0x47;
constexpr std::uint64_t kWantedRun = 8;
constexpr std::array kFormats{PacketFormat{188}, PacketFormat{192}, PacketFormat{204}};

// The number of consecutive packets with a sync byte, the first one starting at `start`.
std::uint64_t RunOfPackets(std::span<const std::uint8_t> head, std::uint64_t start,
                           PacketFormat format) {
  std::uint64_t run = 0;
  std::uint64_t sync = start + format.SyncOffset();
  while (sync < head.size() && head[sync] == kSyncByte) {
    ++run;
    sync += format.packet_bytes;
  }
  return run;
}

std::uint64_t WantedRun(std::size_t head_bytes, std::uint64_t start, PacketFormat format) {
  const std::uint64_t whole_packets = (head_bytes - start) / format.packet_bytes;
  return std::clamp<std::uint64_t>(whole_packets, 1, kWantedRun);
}

}  // namespace

Detection DetectPacketFormat(std::span<const std::uint8_t> head, bool whole) {
  for (std::uint64_t start = 0; start < 204 && start < head.size(); ++start) {
    for (const PacketFormat format : kFormats) {
      const std::uint64_t wanted = WantedRun(head.size(), start, format);
      // A few sync bytes prove nothing after other bytes, nor at the head of a stream that goes on.
      if (wanted < kWantedRun && (start > 0 || !whole)) {
        continue;
      }
      if (head.size() - start >= format.packet_bytes &&
          RunOfPackets(head, start, format) >= wanted) {
        return {.format = format, .first_packet = start};
      }
    }
  }
  Detection none;
  for (const PacketFormat format : kFormats) {
    const std::uint64_t run = RunOfPackets(head, 0, format);
    if (run > 0) {
      none.sync_lost = std::max(none.sync_lost, format.SyncOffset() + run * format.packet_bytes);
    }
  }
  return none;
}

}  // namespace ipplay
