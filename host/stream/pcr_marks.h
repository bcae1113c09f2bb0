// SPDX-License-Identifier: MIT
// When the packets of a stream are to leave, by its own program clock references.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace ipplay {

// Fed with transport packets in their order. Time goes on over wraps; where the clock jumps it goes
// on at the rate before, so that the stream does not.
class PcrMarks {
 public:
  using Time = std::chrono::nanoseconds;

  // By the PCRs of `pid`, which come `packets_per_second` on average. Time runs `speed` times as
  // fast.
  PcrMarks(std::uint16_t pid, double packets_per_second, double speed = 1)
      : pid_(pid), usual_ns_(1e9 / packets_per_second), speed_(speed) {}

  // The PCRs are now those of another PID, on the same clock.
  void Follow(std::uint16_t pid) { pid_ = pid; }

  // When the packet leaves, if it has a PCR; time 0 is about that of the first packet.
  std::optional<Time> Add(const std::uint8_t* packet);

 private:
  bool IsJump(std::uint64_t ticks) const;

  std::uint16_t pid_;
  double usual_ns_;  // from packet to packet
  const double speed_;
  std::uint64_t index_ = 0;  // of the packet to come
  std::optional<std::uint64_t> last_pcr_;
  std::uint64_t last_index_ = 0;
  double time_ns_ = 0;  // of the packet with the last PCR, before `speed`
};

}  // namespace ipplay
