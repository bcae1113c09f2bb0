// SPDX-License-Identifier: MIT
// When the bytes of a stream are to leave.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

#include "platform/mutex.h"

namespace ipplayout {

// "The byte at this offset leaves at this time." Between two marks time is linear, beyond the last
// one the last slope goes on, before the first one the first slope holds. The host adds, the
// builder asks; neither waits for the other but for moments.
class TimeMarks {
 public:
  using Time = std::chrono::nanoseconds;

  static constexpr std::size_t kMostMarks = 65536;
  // No time lies beyond it, on either side: what is added to times stays in their range.
  static constexpr Time kLatest{std::int64_t{1} << 60};

  struct Mark {
    std::uint64_t offset = 0;
    Time time{0};
  };

  enum class Added { kDone, kNotAhead, kFull };

  // ---- Host ----

  // kNotAhead where the offset does not go up or the time goes down. Times are 0 to kLatest.
  Added Add(const Mark& mark);
  // A constant rate from 0 on, in place of marks. Before the first question.
  void SetRate(double nanoseconds_per_byte);
  // No mark follows: with a single one all bytes behind it leave at its time.
  void Finish() { finished_.store(true); }
  std::optional<Mark> Last() const;
  // Bytes per second of the rate, or from the first mark to the last; nothing for fewer than two.
  std::optional<double> MeanRate() const;

  // ---- Builder ----

  // When the byte at `offset` leaves. Offsets do not go down from call to call. Nothing while that
  // depends on a mark to come.
  std::optional<Time> At(std::uint64_t offset);

 private:
  std::optional<Time> OnLine(std::uint64_t offset) const;
  void FindLine(std::uint64_t offset);

  mutable platform::Mutex mutex_;
  std::deque<Mark> marks_ IPPLAYOUT_GUARDED_BY(mutex_);  // the first one begins the segment
  std::optional<Mark> last_ IPPLAYOUT_GUARDED_BY(mutex_);
  std::atomic<std::uint64_t> added_{0};  // stored under the mutex
  std::atomic<bool> finished_{false};
  double rate_slope_ = 0;  // nanoseconds per byte of a constant rate; before the run

  // The builder's own: the line that holds now.
  struct Line {
    Mark origin;
    double slope = 0;  // nanoseconds per byte
    std::uint64_t end = 0;
    bool is_last = false;  // goes on behind its end as long as no mark is added
  };
  std::optional<Line> line_;
  std::uint64_t seen_ = 0;  // of added_, when the line was found
};

}  // namespace ipplayout
