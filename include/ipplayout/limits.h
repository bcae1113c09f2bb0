// SPDX-License-Identifier: MIT
// How many frames the library collects before it sends them. A host that shows or checks the size
// of a batch asks here. Nothing in this header is a symbol of the shared library.
#pragma once

#include "ipplayout/records.h"

enum {
  // At high bit rates, and with jitter.
  IPPLAYOUT_BATCH_FRAMES = 10,
  // With the sine pattern, whose cycle is 100 frames: two cycles.
  IPPLAYOUT_SINE_BATCH_FRAMES = 200,
  // Memory that a queued frame takes besides its own bytes.
  IPPLAYOUT_QUEUE_BYTES_PER_FRAME = 24
};

// Frames in a batch where bursts are off; with bursts it is the size of the burst. `bit_rate` is
// that of the frames in bit/s, those of all copies.
static inline uint32_t IPPlayoutBatchFrames(const ParametricSettings* shape, double bit_rate) {
  // Up to this bit rate frames leave one by one, each at its own point of the grid: a full frame
  // lasts 137 us or more, time enough for a wake-up. Above, ten frames share one.
  const double paced_alone_to = 80e6;  // bit/s
  if (shape->JitterEnabled == IPPLAYOUT_ON) {
    return shape->JitterDistributionType == IPPLAYOUT_JITTER_SINE ? IPPLAYOUT_SINE_BATCH_FRAMES
                                                                  : IPPLAYOUT_BATCH_FRAMES;
  }
  return bit_rate > paced_alone_to ? IPPLAYOUT_BATCH_FRAMES : 1;
}
