// SPDX-License-Identifier: MIT
#include "host/measure/figures/pcr_tracker.h"

#include <algorithm>
#include <cmath>

namespace ipplay::measure {
namespace {

constexpr std::uint64_t kPcrModulus = (std::uint64_t{1} << 33) * 300;
constexpr double kNsPerTick = 1000.0 / 27.0;
constexpr double kTicksPerSecond = 27e6;

// Shortest way from one PCR to another, wraps removed.
std::int64_t StepTicks(std::uint64_t from, std::uint64_t to) {
  const std::uint64_t forward = (to + kPcrModulus - from) % kPcrModulus;
  return forward < kPcrModulus / 2
             ? static_cast<std::int64_t>(forward)
             : static_cast<std::int64_t>(forward) - static_cast<std::int64_t>(kPcrModulus);
}

}  // namespace

double PcrTracker::Add(const PcrSample& sample) {
  if (count_++ == 0) {
    StartStretch(sample);
  } else {
    Continue(sample);
  }
  if (accuracy_.IsEmpty()) {
    accuracy_first_byte_ = sample.byte_index;
    accuracy_first_ticks_ = ticks_;
  }
  last_ = sample;
  accuracy_.Add(static_cast<std::int64_t>(sample.byte_index - accuracy_first_byte_),
                ticks_ - accuracy_first_ticks_);
  CompareWithArrival(sample);
  return last_offset_ns_;
}

void PcrTracker::Continue(const PcrSample& sample) {
  const std::int64_t interval = std::max<std::int64_t>(0, sample.arrival_ns - last_.arrival_ns);
  intervals_.Add(static_cast<std::uint64_t>(interval));
  if (interval > kLongestRepetitionNs) {
    ++repetition_errors_;
  }
  const std::int64_t step = StepTicks(last_.pcr, sample.pcr);
  const bool jumps = step <= 0 || step > kLargestStepTicks;
  if (jumps && !sample.discontinuity) {
    ++discontinuity_errors_;
  }
  if (jumps || sample.discontinuity) {
    StartStretch(sample);
    return;
  }
  if (sample.epoch != last_.epoch) {
    EndAccuracy();
  }
  ticks_ += step;
}

void PcrTracker::StartStretch(const PcrSample& sample) {
  EndAccuracy();
  worst_arrival_ns_ = ArrivalSpread();
  arrival_.Clear();
  ended_xx_ += xx_;
  ended_xy_ += xy_;
  n_ = mean_x_ = mean_y_ = xx_ = xy_ = 0;
  stretch_arrival_ns_ = sample.arrival_ns;
  ticks_ = 0;
}

void PcrTracker::CompareWithArrival(const PcrSample& sample) {
  // All packets of a datagram arrive together, so the clock is taken at the datagram's first byte;
  // a stretch's first PCR has no rate yet that would bring it there.
  const auto per_byte = TicksPerByte();
  if (!per_byte) {
    return;
  }
  const double ticks =
      static_cast<double>(ticks_) - *per_byte * static_cast<double>(sample.byte_offset);
  const double x = ticks * kNsPerTick;
  const double y = static_cast<double>(sample.arrival_ns - stretch_arrival_ns_) - x;
  arrival_.Add(std::llround(x), std::llround(y));
  Regress(x, y);
  if (n_ == 1) {
    rebase_ns_ = last_offset_ns_ - y;
  }
  last_offset_ns_ = rebase_ns_ + y;
}

void PcrTracker::EndAccuracy() {
  if (const auto slope = TicksPerByte()) {
    worst_accuracy_ticks_ = std::max(worst_accuracy_ticks_, accuracy_.Deviation(*slope).Spread());
    rate_bytes_ += last_.byte_index - accuracy_first_byte_;
    rate_ticks_ += ticks_ - accuracy_first_ticks_;
  }
  accuracy_.Clear();
}

std::optional<double> PcrTracker::TicksPerByte() const {
  if (accuracy_.IsEmpty() || last_.byte_index <= accuracy_first_byte_) {
    return std::nullopt;
  }
  return static_cast<double>(ticks_ - accuracy_first_ticks_) /
         static_cast<double>(last_.byte_index - accuracy_first_byte_);
}

void PcrTracker::Regress(double x, double y) {
  n_ += 1;
  const double dx = x - mean_x_;
  mean_x_ += dx / n_;
  mean_y_ += (y - mean_y_) / n_;
  xx_ += dx * (x - mean_x_);
  xy_ += dx * (y - mean_y_);
}

double PcrTracker::AccuracySpread() const {
  double worst = worst_accuracy_ticks_;
  if (const auto slope = TicksPerByte()) {
    worst = std::max(worst, accuracy_.Deviation(*slope).Spread());
  }
  return worst * kNsPerTick;
}

double PcrTracker::ArrivalSpread() const {
  const double slope = FrequencyOffsetPpm() * 1e-6;
  return std::max(worst_arrival_ns_, arrival_.Deviation(slope).Spread());
}

double PcrTracker::FrequencyOffsetPpm() const {
  const double xx = ended_xx_ + xx_;
  return xx > 0 ? (ended_xy_ + xy_) / xx * 1e6 : 0;
}

double PcrTracker::BitRate() const {
  std::uint64_t bytes = rate_bytes_;
  std::int64_t ticks = rate_ticks_;
  if (!accuracy_.IsEmpty()) {
    bytes += last_.byte_index - accuracy_first_byte_;
    ticks += ticks_ - accuracy_first_ticks_;
  }
  return ticks > 0 ? static_cast<double>(bytes) * 8 * kTicksPerSecond / static_cast<double>(ticks)
                   : 0;
}

}  // namespace ipplay::measure
