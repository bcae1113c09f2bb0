// SPDX-License-Identifier: MIT
// Time stamps of the frames of a batch, and the running estimate of their jitter. No I/O.
#pragma once

#include <cstdint>

#include "driver/send_queue.h"
#include "transmit/jitter_estimate.h"
#include "transmit/parametric_manager.h"
#include "transmit/seconds.h"

namespace ipplayout {

// Frames of one batch are one gap apart, counted from its first frame; in burst mode they share the
// first one's stamp. Belongs to the data pump thread.
class FrameStamper {
 public:
  // A new run with frames `packet_time` apart. `parameters` may be null: no jitter.
  void Begin(Seconds packet_time, CParametricManagerBase* parameters);

  // Stamps the next frame, which is `length` bytes long.
  FrameHeader Stamp(std::uint32_t length, bool first_of_batch);

  // The next batch: its gap, and how far its first frame lies behind the last one.
  void BeginBatch(Seconds gap, Seconds start_advance);

  // Jitter offsets applied since BeginBatch.
  Seconds JitterSum() const { return jitter_sum_; }
  // RFC 3550 section 6.4.1 style estimate over the intended send times.
  Seconds Jitter() const { return estimate_.Value(); }

 private:
  struct Time {
    std::int32_t seconds = 0;
    std::int32_t microseconds = 0;
  };

  static Time Split(Seconds time);
  static void Advance(Time& time, const Time& by);
  static void AddSeconds(std::int32_t& seconds, std::int32_t more);
  static void Carry(Time& time);
  void AdvanceClock(Seconds by);
  void ApplyJitter(bool first_of_batch);

  CParametricManagerBase* parameters_ = nullptr;
  bool jitter_on_ = false;
  bool burst_mode_ = false;
  Seconds gap_{0};
  Time gap_time_;
  Seconds start_advance_{0};
  std::int64_t total_count_ = 0;
  Time pending_;     // since the first frame of the batch
  Time send_clock_;  // since the first frame of the run
  Seconds jitter_sum_{0};
  JitterEstimate estimate_;
};

}  // namespace ipplayout
