// SPDX-License-Identifier: MIT
// Properties of a stream, found before it is played.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/stream/input.h"
#include "host/stream/packet_format.h"
#include "host/stream/packet_sync.h"
#include "host/stream/pcr_rate.h"
#include "host/stream/stream_filter.h"
#include "host/stream/stream_tables.h"
#include "host/stream/time_window.h"

namespace ipplay {

struct ListedStream;

struct StreamFacts {
  PacketFormat format;
  std::uint64_t leading_bytes = 0;     // before the first packet of all; not played
  std::uint64_t first_packet = 0;      // offset of the first one that is played
  std::optional<std::uint64_t> end;    // of a file: offset at which reading ends
  std::optional<std::uint64_t> bytes;  // of a file: of its packets (all bytes of raw input)
  std::uint64_t trailing_bytes = 0;    // after the last whole packet; not played
  Damage damage;                    // between the packets of a file that was read whole; not played
  std::optional<PcrRate> rate;      // where there are PCRs
  double null_share = 0;            // null packets among all that were looked at
  std::uint64_t content_ticks = 0;  // of a file, as PesTimes::Ticks()
  bool live = false;                // comes at its own pace
  std::optional<TimeSpan> window{};          // of a pipe, to be found as it comes
  FilterOrder filter{};                      // what of it is played
  StreamTables tables{};                     // of what is played
  std::optional<DatagramFacts> datagrams{};  // of a capture
  std::vector<ListedStream> list;            // streams that are played in a row, as one; or none

  std::optional<std::uint64_t> Packets() const;
  // The stream's own rate in bits per second, as PacketFormat::CountedBytes counts; of packets of
  // another format where that is given.
  std::optional<double> BitRate() const { return BitRate(format); }
  std::optional<double> BitRate(PacketFormat of) const;
};

struct ListedStream {
  std::string name;  // of the input
  StreamFacts facts;
};

struct ExamineOptions {
  bool raw = false;
  // How much of what comes once is read ahead, by its PCRs and in bytes.
  std::chrono::nanoseconds read_ahead = std::chrono::seconds(2);
  std::size_t most_read_ahead = std::size_t{32} << 20;
  bool whole = false;  // read a large file whole too, so that its length is exact
  std::optional<std::uint16_t> pcr_pid{};
  std::optional<TimeSpan> window{};  // what to play; none: all
  FilterOrder filter{};
};

// A file up to this size is read from end to end. Of a larger one beginning and end are read, and
// its length is taken from its size, as if there were no damage.
inline constexpr std::uint64_t kLargeFile = std::uint64_t{64} << 20;

// Reads the file, and takes the bit rate from the PCRs. Of a pipe it reads what comes first.
// `input` is then at the first packet.
Result<StreamFacts> Examine(Input& input, const ExamineOptions& options);

}  // namespace ipplay
