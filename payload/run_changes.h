// SPDX-License-Identifier: MIT
// What the host of a running playout has changed, on its way to the builder.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>

#include "ipplayout/playouts.h"
#include "platform/mutex.h"

namespace ipplayout {

// All that can change, each time as a whole.
struct RunChange {
  std::int64_t at_ns = 0;
  double speed = 1;
  IpPlayoutFaults faults{};
  ErrorInsertion errors{};
  ParametricSettings parametric{};
};

// Each holds from its time on. The builder asks once for each datagram, and takes the mutex only
// where the time of one has come.
class RunChanges {
 public:
  static constexpr std::size_t kMost = 256;  // that wait

  // Any thread. False when there are too many.
  bool Add(const RunChange& change);

  // Builder: what holds from the datagram due at `due` on; nothing where all is as before.
  std::optional<RunChange> TakeDue(std::chrono::nanoseconds due);

 private:
  static constexpr std::int64_t kNone = std::numeric_limits<std::int64_t>::max();

  platform::Mutex mutex_;
  std::deque<RunChange> changes_ IPPLAYOUT_GUARDED_BY(mutex_);  // by time; equals as they came
  std::atomic<std::int64_t> next_ns_{kNone};  // of the first one; stored under the mutex
};

// Where a schedule that is played faster or slower puts its times. The builder's.
class SpeedLine {
 public:
  using Time = std::chrono::nanoseconds;

  Time Map(Time scheduled) const;
  // What is scheduled behind `scheduled` follows at this speed.
  void Bend(Time scheduled, double speed);

 private:
  Time from_{0};
  Time to_{0};
  double speed_ = 1;
};

}  // namespace ipplayout
