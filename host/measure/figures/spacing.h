// SPDX-License-Identifier: MIT
// How evenly frames arrive: gaps between them, deviation from an even grid, and clumps.
#pragma once

#include <cstdint>
#include <optional>

#include "host/measure/figures/histogram.h"
#include "host/measure/figures/line_extent.h"
#include "host/measure/figures/line_fit.h"

namespace ipplay::measure {

struct SpacingSettings {
  // Time that one byte of a frame takes at the ordered rate; the mean so far where there is none.
  std::optional<double> ns_per_byte;
  // A frame that arrives less than this after the one before is clumped with it; a quarter of the
  // ideal gap where there is none.
  std::optional<std::int64_t> clump_gap_ns;
};

class Spacing {
 public:
  explicit Spacing(const SpacingSettings& settings) : settings_(settings) {}

  // A frame of `bytes` arrived at `time_ns`. `continuous` says that no frame is known to be missing
  // or out of place since the one before; if it is not, the grid restarts here, because whether
  // a missing frame left its place empty is the sender's choice.
  void Add(std::int64_t time_ns, std::uint32_t bytes, bool continuous);

  // All in nanoseconds.
  const Histogram& Gaps() const { return gaps_; }
  // |gap - ideal gap|, the ideal gap being the time that the frame before takes at the rate.
  const Histogram& GapErrors() const { return gap_errors_; }
  // Earliest and latest arrival against the grid of one stretch without missing frames; the widest
  // such stretch. The grid's slope is the ordered rate, or the line that fits the stretch best.
  // None without a stretch that says more than its own line.
  std::optional<LineExtent::Range> GridDeviation() const;

  // Clumps: frames that follow one another closer than the clump gap.
  std::uint64_t ClumpedFrames() const { return clumped_frames_; }
  const Histogram& BurstLengths() const { return burst_lengths_; }  // in frames, 2 and more
  void EndBurst();

  // Frames whose time stamp was before that of the frame before; their gap counts as 0.
  std::uint64_t TimeReversals() const { return time_reversals_; }

 private:
  double NsPerByte() const;
  double GridSlope() const;
  void AddToGrid(std::int64_t time_ns, std::uint32_t bytes, bool continuous);

  SpacingSettings settings_;
  Histogram gaps_;
  Histogram gap_errors_;
  Histogram burst_lengths_;
  LineExtent grid_;                          // x: bytes of the frames before, y: arrival in ns
  std::optional<LineExtent::Range> widest_;  // of the stretches that have ended
  std::int64_t grid_bytes_ = 0;
  std::int64_t grid_first_ns_ = 0;
  LineFit fit_;  // of arrivals over bytes within the stretch
  bool started_ = false;
  std::int64_t first_ns_ = 0;  // later by all gaps in which frames are missing
  std::int64_t last_ns_ = 0;
  std::int64_t latest_ns_ = 0;
  std::uint32_t last_bytes_ = 0;
  std::int64_t elapsed_ns_ = 0;
  std::int64_t elapsed_bytes_ = 0;
  std::uint64_t burst_length_ = 1;
  std::uint64_t clumped_frames_ = 0;
  std::uint64_t time_reversals_ = 0;
};

}  // namespace ipplay::measure
