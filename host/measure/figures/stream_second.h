// SPDX-License-Identifier: MIT
// The figures of one stream in one second of the clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "host/measure/figures/stream.h"

namespace ipplay::measure {

// Counts are of this second alone, and their sums over all seconds are the totals. Without a value
// what the stream does not have, or what was not measured.
struct StreamSecond {
  std::uint32_t stream = 0;    // its place in the table
  std::int64_t start_ns = 0;   // a full second since 1970, but for the first one
  std::int64_t length_ns = 0;  // shorter at both ends of the measurement
  std::uint64_t frames = 0;
  std::uint64_t frame_bytes = 0;
  std::uint64_t payload_bytes = 0;
  // RTP packets, or else transport packets by their counters. Below 0 where more came late that
  // seconds before had counted than were lost.
  std::optional<std::int64_t> lost;
  std::uint64_t duplicates = 0;
  std::optional<std::uint64_t> reordered;
  std::uint64_t bad_checksums = 0;
  std::int64_t longest_gap_ns = 0;  // that ended in this second, or that goes on at its end
  std::optional<double> jitter_ns;  // RFC 3550, at the end of the second
  std::optional<double> delay_factor_ns;
  std::optional<std::uint64_t> ts_packets;
  std::uint64_t continuity_errors = 0;
  std::uint64_t errors = 0;  // of the first priority, and transport errors
  std::uint64_t second_priority_errors = 0;
  std::uint64_t third_priority_errors = 0;
  std::uint64_t pcrs = 0;
  std::optional<double> pcr_spread_ns;  // arrivals against the reference clock, its offset included
};

class SecondSink {
 public:
  SecondSink() = default;
  SecondSink(const SecondSink&) = delete;
  SecondSink& operator=(const SecondSink&) = delete;
  virtual ~SecondSink() = default;

  virtual void Add(const StreamSecond& second) = 0;
};

// Cuts the measurement into seconds, all streams at the same time.
class SecondCutter {
 public:
  // So many seconds in a row without anything are rows of their own; what is left then is one row.
  static constexpr std::int64_t kMostAtOnce = 3600;

  // The measurement begins. `sink` outlives this.
  SecondCutter(SecondSink& sink, std::int64_t start_ns);

  // Time has come to `now_ns`: ends the seconds before it.
  void AdvanceTo(std::int64_t now_ns, std::span<const std::unique_ptr<Stream>> streams) {
    if (now_ns >= next_ns_) {
      EndSeconds(now_ns, streams);
    }
  }
  // Ends the last second at `end_ns`.
  void Finish(std::int64_t end_ns, std::span<const std::unique_ptr<Stream>> streams);

 private:
  void EndSeconds(std::int64_t now_ns, std::span<const std::unique_ptr<Stream>> streams);
  void EndSecond(std::int64_t end_ns, std::span<const std::unique_ptr<Stream>> streams);

  SecondSink& sink_;
  std::int64_t start_ns_;  // of the second
  std::int64_t next_ns_;
  std::vector<StreamSecond> before_;  // the totals at the end of the second before
};

}  // namespace ipplay::measure
