// SPDX-License-Identifier: MIT
// When batches of frames are to leave. Arithmetic only: the transmitter measures and waits.
#pragma once

#include <cstdint>
#include <optional>

#include "transmit/seconds.h"

namespace ipplayout {

// Keeps the batches of a run on an absolute grid: what a wait was too long or too short is carried
// in the budget of the next one, so errors never add up.
class BatchPacer {
 public:
  struct Pace {
    Seconds wait{0};  // until the batch is due; 0 or below: at once
    std::optional<Seconds> gap_correction;
    Seconds queue_start_advance{0};
  };

  // Frames `packet_time` apart in batches of `frames`; `burst`: the frames of a batch leave
  // together and take the time of `frames` gaps.
  BatchPacer(Seconds packet_time, std::uint32_t frames, bool burst)
      : packet_time_(packet_time), frames_(frames), burst_(burst) {}

  // For every batch but the first, which leaves at once. `elapsed` lies between the moments at
  // which this batch and the one before it were taken up; `jitter_sum` is the batch's own.
  Pace Next(Seconds elapsed, Seconds jitter_sum);

 private:
  Pace NextSingle(Seconds elapsed);
  Pace NextSpaced(Seconds elapsed);
  Pace NextBurst(Seconds elapsed, Seconds jitter_sum);

  Seconds packet_time_;
  double frames_;
  bool burst_;
  Seconds budget_{0};      // the wait that the previous batch was given
  Seconds correction_{0};  // the last gap correction
};

}  // namespace ipplayout
