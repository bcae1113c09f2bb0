// SPDX-License-Identifier: MIT
// Finds the packets of a stream again behind bytes that are none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "host/stream/packet_format.h"

namespace ipplay {

// What a stream holds besides its packets.
struct Damage {
  std::uint64_t bytes = 0;   // that belong to no packet
  std::uint64_t places = 0;  // where they stand
  std::uint64_t first = 0;   // offset of the first of them

  bool operator==(const Damage&) const = default;
};

class PacketSync {
 public:
  // The bytes after a packet show whether it is whole. `eager` takes it for whole where they have
  // not come yet; otherwise what is found does not depend on how the stream comes in pieces.
  PacketSync(PacketFormat format, bool eager) : format_(format), eager_(eager) {}

  struct Run {
    std::size_t skipped = 0;  // bytes that belong to no packet
    std::size_t bytes = 0;    // whole packets behind them
  };
  // Looks at what follows the run found last. An empty run asks for more bytes; at the end of the
  // stream (`at_end`) it means that fewer than a packet are left.
  Run Find(std::span<const std::uint8_t> bytes, bool at_end);

 private:
  struct Search {
    std::size_t position = 0;  // everything before it belongs to no packet
    bool found = false;
  };

  bool HasSync(std::span<const std::uint8_t> bytes, std::size_t packet) const {
    return bytes[packet + format_.SyncOffset()] == kSyncByte;
  }
  Search SearchFrom(std::span<const std::uint8_t> bytes, std::size_t from, std::size_t until,
                    bool at_end) const;
  bool IsCutShort(std::span<const std::uint8_t> bytes, std::size_t packet) const;

  PacketFormat format_;
  bool eager_;
  bool in_sync_ = true;  // a stream starts with a packet
};

}  // namespace ipplay
