// SPDX-License-Identifier: MIT
#include "transmit/frame_stamper.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace ipplayout {
namespace {

constexpr std::int32_t kMicrosecondsPerSecond = 1000000;
// Longest time that is told apart: eleven days between two frames.
constexpr Seconds kLongestTime{1e6};
// Where the clock of a run stands still, after 68 years: a second below the largest one leaves room
// for a carry.
constexpr std::int32_t kLatestSecond = std::numeric_limits<std::int32_t>::max() - 1;

}  // namespace

void FrameStamper::Begin(Seconds packet_time, CParametricManagerBase* parameters) {
  *this = FrameStamper();
  parameters_ = parameters;
  jitter_on_ = parameters != nullptr && parameters->IsJitterEnabled() != 0;
  burst_mode_ = parameters != nullptr && parameters->IsBurstMode() != 0;
  BeginBatch(packet_time, packet_time);
}

void FrameStamper::BeginBatch(Seconds gap, Seconds start_advance) {
  gap_ = gap;
  gap_time_ = Split(gap);
  start_advance_ = start_advance;
  jitter_sum_ = Seconds(0);
}

FrameHeader FrameStamper::Stamp(std::uint32_t length, bool first_of_batch) {
  if (first_of_batch) {
    pending_ = {};
    if (total_count_ != 0) {
      AdvanceClock(start_advance_);
    }
  } else if (!burst_mode_) {
    Advance(pending_, gap_time_);
    Advance(send_clock_, gap_time_);
  }
  if (jitter_on_) {
    ApplyJitter(first_of_batch);
  }
  ++total_count_;
  estimate_.Add(Seconds(send_clock_.seconds + send_clock_.microseconds * 0.000001));
  return {static_cast<std::uint32_t>(pending_.seconds),
          static_cast<std::uint32_t>(pending_.microseconds), length, length};
}

FrameStamper::Time FrameStamper::Split(Seconds time) {
  const double limited = std::clamp(time, -kLongestTime, kLongestTime).count();
  const auto whole = static_cast<std::int32_t>(limited);
  return {whole, static_cast<std::int32_t>((limited - whole) * kMicrosecondsPerSecond)};
}

void FrameStamper::Advance(Time& time, const Time& by) {
  AddSeconds(time.seconds, by.seconds);
  time.microseconds += by.microseconds;
  Carry(time);
}

void FrameStamper::AddSeconds(std::int32_t& seconds, std::int32_t more) {
  seconds = static_cast<std::int32_t>(
      std::min(std::int64_t{seconds} + more, std::int64_t{kLatestSecond}));
}

void FrameStamper::Carry(Time& time) {
  if (time.microseconds >= kMicrosecondsPerSecond) {
    ++time.seconds;
    time.microseconds -= kMicrosecondsPerSecond;
  }
}

// The fraction is added before it is cut to microseconds, unlike a gap's.
void FrameStamper::AdvanceClock(Seconds by) {
  const double limited = std::min(by, kLongestTime).count();
  const auto whole = static_cast<std::int32_t>(limited);
  const double fraction = (limited - whole) * kMicrosecondsPerSecond;
  AddSeconds(send_clock_.seconds, whole);
  send_clock_.microseconds = static_cast<std::int32_t>(fraction + send_clock_.microseconds);
  Carry(send_clock_);
}

void FrameStamper::ApplyJitter(bool first_of_batch) {
  Seconds offset{0};
  if (!first_of_batch) {
    offset = std::max(parameters_->NextJitter(gap_, total_count_), -gap_);
  }
  if (!std::isfinite(offset.count())) {
    offset = Seconds(0);  // of a jitter period that is no number
  }
  jitter_sum_ += offset;
  const Time split = Split(offset);
  parameters_->AddTime(split.seconds, split.microseconds, pending_.seconds, pending_.microseconds);
  parameters_->AddTime(split.seconds, split.microseconds, send_clock_.seconds,
                       send_clock_.microseconds);
}

}  // namespace ipplayout
