// SPDX-License-Identifier: MIT
// Delivers the stream of an input round by round, in whole packets.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "host/stream/input.h"
#include "host/stream/packet_reader.h"
#include "host/stream/stream_facts.h"
#include "host/stream/stream_filter.h"

namespace ipplay {

class RoundReader {
 public:
  // `input` is at the first packet, as Examine() leaves it.
  RoundReader(Input input, const StreamFacts& facts);
  RoundReader(const RoundReader&) = delete;
  RoundReader& operator=(const RoundReader&) = delete;

  // The next packets of the round (bytes of raw input), valid until the next call. Waits for a
  // pipe. Empty at the end of the round.
  std::span<std::uint8_t> Next();
  // When the byte came that stands here in what Next() returned last; nothing where the input does
  // not know.
  std::optional<std::int64_t> ArrivalOf(std::size_t position) const {
    return input_.ArrivalOf(offset_ + position);
  }
  // Goes back to the first packet. For files only.
  void StartNextRound();

  // What the first round has left out so far.
  const Damage& Damaged() const {
    return first_round_damage_ ? *first_round_damage_ : reader_->Damaged();
  }
  // What the user should know about the input, a line each; of all that was read.
  std::vector<std::string> Notes() const;
  PacketFormat Format() const { return format_; }
  // errno of a failed read, ENODATA if the file has become shorter, or 0.
  int ReadError() const;

 private:
  void StartReading();

  Input input_;
  PacketFormat format_;
  std::uint64_t first_packet_;
  std::optional<std::uint64_t> end_;
  std::optional<PacketReader> reader_;
  std::optional<TimeWindow> window_;  // of a pipe
  FilterOrder order_;
  std::optional<StreamFilter> filter_;
  std::uint64_t offset_ = 0;  // in the input, of what Next() returned last
  std::optional<Damage> first_round_damage_;
  std::size_t trailing_bytes_ = 0;  // of what comes once
};

}  // namespace ipplay
