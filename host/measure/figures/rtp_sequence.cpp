// SPDX-License-Identifier: MIT
#include "host/measure/figures/rtp_sequence.h"

#include <algorithm>
#include <cmath>

namespace ipplay::measure {
namespace {

constexpr std::uint64_t kNumbers = 65536;
constexpr double kSmoothing = 1.0 / 16;
constexpr double kStepTolerance = 0.25;

}  // namespace

SequenceResult RtpSequence::Add(std::uint16_t number, std::optional<std::uint32_t> timestamp) {
  const SequenceResult result = Place(number, timestamp);
  if (timestamp) {
    FollowTimestamp(result, *timestamp);
  }
  return result;
}

void RtpSequence::FollowTimestamp(const SequenceResult& result, std::uint32_t timestamp) {
  switch (result.event) {
    case SequenceEvent::kInOrder: {
      const auto step = static_cast<std::int32_t>(timestamp - highest_timestamp_);
      const double share = ticks_per_packet_ == 0 ? 1 : kSmoothing;
      ticks_per_packet_ += share * (step - ticks_per_packet_);
      highest_timestamp_ = timestamp;
      break;
    }
    case SequenceEvent::kRestart:
      ticks_per_packet_ = 0;
      highest_timestamp_ = timestamp;
      break;
    case SequenceEvent::kFirst:
    case SequenceEvent::kGap:
      highest_timestamp_ = timestamp;
      break;
    default:
      break;
  }
}

bool RtpSequence::KeepsStep(std::int64_t steps, std::optional<std::uint32_t> timestamp) const {
  if (!timestamp || ticks_per_packet_ <= 0) {
    return false;
  }
  const double expected = ticks_per_packet_ * static_cast<double>(steps);
  const auto moved = static_cast<std::int32_t>(*timestamp - highest_timestamp_);
  return std::abs(moved - expected) <= std::abs(expected) * kStepTolerance;
}

SequenceResult RtpSequence::Place(std::uint16_t number, std::optional<std::uint32_t> timestamp) {
  ++received_;
  if (received_ == 1) {
    Start(number);
    return {SequenceEvent::kFirst, 0};
  }
  if (after_stray_ == number) {
    // RFC 3550, A.1: two in a row of another numbering mean that the sender has restarted.
    --strays_;
    ++restarts_;
    Start(number);
    return {SequenceEvent::kRestart, 0};
  }
  const auto ahead = static_cast<std::uint16_t>(number - static_cast<std::uint16_t>(highest_));
  const auto behind = static_cast<std::uint32_t>(kNumbers - ahead);
  if (ahead == 0) {
    return FallBehind(0);
  }
  if (ahead < kMaxDropout || (ahead < kNumbers / 2 && KeepsStep(ahead, timestamp))) {
    return Advance(ahead);
  }
  if (behind < kMaxMisorder || (behind < kWindow && KeepsStep(-std::int64_t{behind}, timestamp))) {
    return FallBehind(behind);
  }
  return Stray(number);
}

void RtpSequence::Start(std::uint16_t number) {
  seen_.reset();
  highest_ = first_ = kNumbers + number;
  seen_.set(highest_ % kWindow);
  after_stray_.reset();
}

SequenceResult RtpSequence::Advance(std::uint32_t ahead) {
  after_stray_.reset();
  for (std::uint64_t n = highest_ + 1; n < highest_ + ahead; ++n) {
    seen_.reset(n % kWindow);
  }
  highest_ += ahead;
  seen_.set(highest_ % kWindow);
  if (ahead == 1) {
    return {SequenceEvent::kInOrder, 0};
  }
  const std::uint32_t missing = ahead - 1;
  lost_ += missing;
  ++loss_periods_;
  longest_loss_ = std::max<std::uint64_t>(longest_loss_, missing);
  return {SequenceEvent::kGap, missing};
}

SequenceResult RtpSequence::FallBehind(std::uint32_t behind) {
  after_stray_.reset();
  const std::uint64_t number = highest_ - behind;
  if (seen_.test(number % kWindow)) {
    ++duplicates_;
    return {SequenceEvent::kDuplicate, behind};
  }
  seen_.set(number % kWindow);
  reordering_.Add(behind);
  if (number < first_) {
    // Sent before the first one that came: what lies between is missing as well.
    lost_ += first_ - number - 1;
    first_ = number;
  } else {
    --lost_;
  }
  return {SequenceEvent::kLate, behind};
}

SequenceResult RtpSequence::Stray(std::uint16_t number) {
  after_stray_ = static_cast<std::uint16_t>(number + 1);
  ++strays_;
  return {SequenceEvent::kStray, 0};
}

}  // namespace ipplay::measure
