// SPDX-License-Identifier: MIT
// Continuity counters of a transport stream in the order of arrival, beside the view behind a
// receiver's repairs.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "host/measure/figures/pid_table.h"

namespace ipplay::measure {

// Until the first disorder both views are the same, so it is made with what is known then.
class ArrivalContinuity {
 public:
  // `errors` so far, and the last counter of each PID.
  ArrivalContinuity(std::uint64_t errors, std::span<const PidState> pids);

  // Whole packets, `stride` bytes from one sync byte to the next.
  void Add(std::span<const std::uint8_t> media, std::size_t stride);

  // Packets came that cannot be read.
  void SkipUnread() { last_.fill(kUnknown); }

  std::uint64_t Errors() const { return errors_; }

 private:
  static constexpr std::uint8_t kUnknown = 0xFF;

  void AddPacket(TsPacket packet);

  std::uint64_t errors_;
  std::array<std::uint8_t, kTsPids> last_;  // kUnknown, or the counter
};

}  // namespace ipplay::measure
