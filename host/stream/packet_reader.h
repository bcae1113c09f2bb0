// SPDX-License-Identifier: MIT
// Reads the whole packets of an input, in the order in which they stand there, without what is
// damaged between them. Raw input has no packets: it is read as it is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "host/stream/input.h"
#include "host/stream/packet_format.h"
#include "host/stream/packet_sync.h"

namespace ipplay {

class PacketReader {
 public:
  // `input`, which outlives this object, is at its first packet, at `offset`. Reads no further than
  // to `end`.
  PacketReader(Input& input, PacketFormat format, std::uint64_t offset,
               std::optional<std::uint64_t> end = std::nullopt);

  // The next packets (bytes of raw input), valid until the next call. Waits for a pipe. Empty at
  // the end.
  std::span<std::uint8_t> Next();

  const Damage& Damaged() const { return damage_; }
  // Once Next() was empty: bytes behind the last packet.
  std::size_t TrailingBytes() const { return filled_ - taken_; }
  // Offset in the input of what Next() returns next.
  std::uint64_t Offset() const { return offset_; }
  // The input ended before `end`.
  bool IsCutShort() const { return end_ && at_end_ && read_to_ < *end_ && !input_.IsStopped(); }

 private:
  void Skip(std::size_t count);
  void Fill();

  Input& input_;
  PacketFormat format_;
  PacketSync sync_;
  std::uint64_t offset_;
  std::uint64_t read_to_;
  std::optional<std::uint64_t> end_;
  std::vector<std::uint8_t> block_;
  std::size_t taken_ = 0;   // bytes of the block that were delivered or left out
  std::size_t filled_ = 0;  // bytes in the block
  bool at_end_ = false;
  bool skipping_ = false;  // what was left out last goes on
  Damage damage_;
};

}  // namespace ipplay
