// SPDX-License-Identifier: MIT
// Delivers the stream of an input round by round, in whole packets.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "host/stream/input.h"
#include "host/stream/stream_facts.h"

namespace ipplay {

class RoundReader {
 public:
  // `input` is at the first packet, as Examine() leaves it.
  RoundReader(Input input, const StreamFacts& facts);

  // The next packets of the round (bytes of raw input), valid until the next call. Waits for a
  // pipe. Empty at the end of the round.
  std::span<std::uint8_t> Next();
  // Goes back to the first packet. For files only.
  void StartNextRound();

  // Offset in the input of the first missing sync byte. For any thread.
  std::optional<std::uint64_t> SyncLost() const;
  PacketFormat Format() const { return format_; }
  // errno of a failed read, ENODATA if the file has become shorter, or 0.
  int ReadError() const;

 private:
  void CheckSync(std::span<const std::uint8_t> packets);

  static constexpr std::uint64_t kNever = UINT64_MAX;

  Input input_;
  PacketFormat format_;
  std::uint64_t first_packet_;
  std::optional<std::uint64_t> round_bytes_;
  std::uint64_t delivered_ = 0;  // of this round
  std::vector<std::uint8_t> block_;
  std::size_t filled_ = 0;  // bytes in block_
  bool cut_short_ = false;
  std::size_t taken_ = 0;  // of these, delivered by the last Next()
  std::atomic<std::uint64_t> sync_lost_{kNever};
};

}  // namespace ipplay
