// SPDX-License-Identifier: MIT
// Time stamps of a capture whose clock may be put back while it goes on.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

namespace ipplay::measure {

// Time goes on where the clock was put back, at the distance of the two frames before. A clock that
// is put ahead looks like silence, and is left as it is, since silence must not be hidden.
class StepFreeClock {
 public:
  // Queues hold a frame back for less.
  static constexpr std::int64_t kShortestStepNs = 100'000'000;

  // The time stamp of the next frame, 0 to 2^62 ns, on the clock before all steps.
  std::int64_t Take(std::int64_t stamp_ns) {
    step_ns_.reset();
    std::int64_t time_ns = stamp_ns + shift_ns_;
    if (started_ && time_ns < latest_ns_ - kShortestStepNs) {
      Step(latest_ns_ + usual_ns_ - time_ns);
      undo_ns_ = *step_ns_;
    } else if (undo_ns_ != 0 && time_ns > latest_ns_ + kShortestStepNs &&
               time_ns - latest_ns_ <= kShortestStepNs - undo_ns_) {
      Step(undo_ns_);  // a single frame was stamped wrongly
      undo_ns_ = 0;
    } else {
      undo_ns_ = 0;
    }
    time_ns = stamp_ns + shift_ns_;
    if (started_) {
      usual_ns_ = std::clamp<std::int64_t>(time_ns - latest_ns_, 0, kShortestStepNs);
    }
    latest_ns_ = started_ ? std::max(latest_ns_, time_ns) : time_ns;
    started_ = true;
    return time_ns;
  }

  // A time of the clock as it is now, on the clock before all steps.
  std::int64_t ToTime(std::int64_t clock_ns) const { return clock_ns + shift_ns_; }

  // By how much the last frame's stamp showed the clock to have been put ahead, or back (below 0).
  const std::optional<std::int64_t>& LastStepNs() const { return step_ns_; }
  std::uint64_t Steps() const { return steps_; }

 private:
  // A clock may step back over and over: with this no sum of times leaves 64 bits.
  static constexpr std::int64_t kMostShiftNs = std::int64_t{1} << 60;

  void Step(std::int64_t by_ns) {
    shift_ns_ = std::clamp(shift_ns_ + by_ns, -kMostShiftNs, kMostShiftNs);
    step_ns_ = -by_ns;
    ++steps_;
  }

  bool started_ = false;
  std::int64_t shift_ns_ = 0;
  std::int64_t latest_ns_ = 0;
  std::int64_t usual_ns_ = 0;  // from one frame to the next
  std::int64_t undo_ns_ = 0;   // what shows right behind a step that it was none
  std::optional<std::int64_t> step_ns_;
  std::uint64_t steps_ = 0;
};

}  // namespace ipplay::measure
