// SPDX-License-Identifier: MIT
#include "host/measure/figures/spacing.h"

#include <algorithm>
#include <cmath>

namespace ipplay::measure {
namespace {

constexpr double kClumpShare = 0.25;

}  // namespace

double Spacing::NsPerByte() const {
  if (settings_.ns_per_byte) {
    return *settings_.ns_per_byte;
  }
  if (elapsed_bytes_ == 0) {
    return 0;
  }
  return static_cast<double>(elapsed_ns_) / static_cast<double>(elapsed_bytes_);
}

void Spacing::Add(std::int64_t time_ns, std::uint32_t bytes, bool continuous) {
  if (!started_) {
    started_ = true;
    first_ns_ = latest_ns_ = time_ns;
    AddToGrid(time_ns, 0, true);
  } else {
    if (time_ns < last_ns_) {
      ++time_reversals_;
    }
    const std::int64_t gap = std::max<std::int64_t>(0, time_ns - last_ns_);
    if (continuous) {
      // Not the sum of the gaps: what went back has been counted before.
      elapsed_ns_ = std::max(elapsed_ns_, time_ns - first_ns_);
      elapsed_bytes_ += last_bytes_;
    } else {
      // A hole says nothing about the rate; nor does it count again after time went back.
      first_ns_ += std::max<std::int64_t>(0, time_ns - latest_ns_);
    }
    const double ideal = NsPerByte() * last_bytes_;
    gaps_.Add(static_cast<std::uint64_t>(gap));
    if (ideal > 0) {  // else there is no rate yet
      gap_errors_.Add(
          static_cast<std::uint64_t>(std::llround(std::abs(static_cast<double>(gap) - ideal))));
    }

    const double clump_gap =
        settings_.clump_gap_ns ? static_cast<double>(*settings_.clump_gap_ns) : ideal * kClumpShare;
    if (static_cast<double>(gap) < clump_gap) {
      ++clumped_frames_;
      ++burst_length_;
    } else {
      EndBurst();
    }
    AddToGrid(time_ns, last_bytes_, continuous);
  }
  last_ns_ = time_ns;
  latest_ns_ = std::max(latest_ns_, time_ns);
  last_bytes_ = bytes;
}

void Spacing::EndBurst() {
  if (burst_length_ > 1) {
    burst_lengths_.Add(burst_length_);
  }
  burst_length_ = 1;
}

void Spacing::AddToGrid(std::int64_t time_ns, std::uint32_t bytes, bool continuous) {
  grid_bytes_ += bytes;
  if (!continuous) {
    widest_ = GridDeviation();
    grid_.Clear();
    grid_bytes_ = 0;
    fit_.Clear();
  }
  if (fit_.Count() == 0) {
    grid_first_ns_ = time_ns;
  }
  grid_.Add(grid_bytes_, time_ns);
  fit_.Add(static_cast<double>(grid_bytes_), static_cast<double>(time_ns - grid_first_ns_));
}

// A line through the first and the last arrival would put their lateness into every other one.
double Spacing::GridSlope() const {
  return settings_.ns_per_byte || fit_.Xx() <= 0 ? NsPerByte() : fit_.Xy() / fit_.Xx();
}

std::optional<LineExtent::Range> Spacing::GridDeviation() const {
  // Any two arrivals lie on a line, and so does one on that of a rate.
  const double fewest = settings_.ns_per_byte ? 2 : 3;
  if (fit_.Count() < fewest) {
    return widest_;
  }
  const LineExtent::Range stretch = grid_.Deviation(GridSlope());
  return widest_ && widest_->Spread() >= stretch.Spread() ? widest_ : stretch;
}

}  // namespace ipplay::measure
