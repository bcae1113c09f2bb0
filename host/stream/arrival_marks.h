// SPDX-License-Identifier: MIT
// When the datagrams of a capture are to leave: as far apart as they came.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "host/stream/byte_source.h"

namespace ipplay {

class ArrivalMarks {
 public:
  using Time = std::chrono::nanoseconds;

  // Time runs `speed` times as fast.
  explicit ArrivalMarks(double speed) : speed_(speed) {}

  // When a datagram leaves; the first one does at 0. No two leave at the same time, so that each
  // can be told by its own, and those that are missing have room between. One that comes from
  // further ahead in the stream begins a new round, a mean gap behind the last one.
  Time Add(const Arrival& arrival);

 private:
  const double speed_;
  std::optional<Arrival> last_;
  std::int64_t base_ns_ = 0;  // what leaves at round_start_
  Time round_start_{0};
  Time time_{0};  // of the last one
  std::int64_t gaps_ = 0;
};

}  // namespace ipplay
