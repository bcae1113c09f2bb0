// SPDX-License-Identifier: MIT
#include "host/stream/packet_format.h"

#include <algorithm>
#include <array>

namespace ipplay {
namespace {

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

// Packets with a damaged sync byte among them may come before the run that was found: the first one
// of them from which on most have theirs.
std::uint64_t FirstPacket(std::span<const std::uint8_t> head, std::uint64_t run,
                          PacketFormat format) {
  std::uint64_t first = run;
  std::uint64_t with_sync = 0;
  for (std::uint64_t back = 1; back <= kWantedRun && back * format.packet_bytes <= run; ++back) {
    const std::uint64_t packet = run - back * format.packet_bytes;
    with_sync += head[packet + format.SyncOffset()] == kSyncByte ? 1U : 0U;
    if (head[packet + format.SyncOffset()] == kSyncByte && 2 * with_sync > back) {
      first = packet;
    }
  }
  return first;
}

// A stream of a few packets, most of them with a sync byte.
std::optional<PacketFormat> ShortStream(std::span<const std::uint8_t> stream) {
  for (const PacketFormat format : kFormats) {
    const std::uint64_t packets = stream.size() / format.packet_bytes;
    std::uint64_t with_sync = 0;
    for (std::uint64_t i = 0; i < packets; ++i) {
      with_sync += stream[i * format.packet_bytes + format.SyncOffset()] == kSyncByte ? 1U : 0U;
    }
    if (packets >= 3 && stream[format.SyncOffset()] == kSyncByte && 2 * with_sync > packets) {
      return format;
    }
  }
  return std::nullopt;
}

}  // namespace

Detection DetectPacketFormat(std::span<const std::uint8_t> head, bool whole) {
  for (std::uint64_t start = 0; start < head.size(); ++start) {
    for (const PacketFormat format : kFormats) {
      const std::uint64_t wanted = WantedRun(head.size(), start, format);
      // A few sync bytes prove nothing after other bytes, nor at the head of a stream that goes on.
      if (wanted < kWantedRun && (start > 0 || !whole)) {
        continue;
      }
      if (head.size() - start >= format.packet_bytes &&
          RunOfPackets(head, start, format) >= wanted) {
        return {.format = format, .first_packet = FirstPacket(head, start, format)};
      }
    }
  }
  if (const auto format = whole ? ShortStream(head) : std::nullopt) {
    return {.format = format};
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
