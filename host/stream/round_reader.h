// SPDX-License-Identifier: MIT
// Delivers the stream of an input round by round, in whole packets.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/stream/input.h"
#include "host/stream/packet_reader.h"
#include "host/stream/stream_facts.h"
#include "host/stream/stream_filter.h"

namespace ipplay {

class RoundReader {
 public:
  struct Stream {
    Input input;  // at the first packet, as Examine() leaves it
    StreamFacts facts;
  };

  RoundReader(Input input, const StreamFacts& facts);
  // A round is one stream after the other, all of one format.
  explicit RoundReader(std::vector<Stream> streams);
  RoundReader(const RoundReader&) = delete;
  RoundReader& operator=(const RoundReader&) = delete;

  // The next packets of the stream in hand (bytes of raw input), valid until the next call. Waits
  // for a pipe. Empty at its end.
  std::span<std::uint8_t> Next();
  // What to do on time while Next() waits.
  void DoWhileWaiting(const IdleWork& work);
  // When the byte came that stands here in what Next() returned last; nothing where the input does
  // not know.
  std::optional<Arrival> ArrivalOf(std::size_t position) const {
    return Now().input.ArrivalOf(offset_ + position);
  }
  // How many of the bytes from there on came together; the rest of them where that is not known.
  std::size_t SameArrival(std::size_t position, std::size_t end) const;
  // Goes to the first packet of the next stream, or back to that of the only one. For files only.
  void StartNextRound();

  // What the first round has left out so far.
  Damage Damaged() const;
  // What the user should know about the input, a line each; of all that was read.
  std::vector<std::string> Notes() const;
  PacketFormat Format() const { return Now().facts.format; }
  // That ReadError() is about.
  const std::string& Name() const { return Now().input.Name(); }
  // errno of a failed read, ENODATA if the file has become shorter, or 0.
  int ReadError() const;

 private:
  void StartReading();
  const Stream& Now() const { return streams_[stream_]; }

  std::vector<Stream> streams_;
  std::size_t stream_ = 0;  // in hand
  std::optional<PacketReader> reader_;
  std::optional<TimeWindow> window_;  // of a pipe
  std::optional<StreamFilter> filter_;
  std::uint64_t offset_ = 0;  // in the input, of what Next() returned last
  Damage damage_;             // in the streams that were read to their end in the first round
  bool first_round_ = true;
  std::size_t trailing_bytes_ = 0;  // of what comes once
};

}  // namespace ipplay
