// SPDX-License-Identifier: MIT
// How fast a playout goes: its bit rates, gaps, batches and RTP clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "host/base/result.h"
#include "host/play/plan_sizes.h"
#include "host/play/play_options.h"
#include "host/stream/null_filler.h"
#include "host/stream/stream_facts.h"
#include "ipplayout/records.h"

namespace ipplay {

struct Rates {
  double stream = 0;                // bit/s of transport stream, --speed and --ppm included
  double frame = 0;                 // bit/s of one stream's frames
  double share_sent = 1;            // of the datagrams; the rest is lost on purpose
  std::uint64_t batch = 1;          // frames that the library hands to the adapter at a time
  std::chrono::nanoseconds gap{0};  // between frames, all copies counted
  // The library's RTP clock advances by the time of this number of bytes with every frame, copies
  // and lost ones included.
  std::uint32_t rtp_step_bytes = 0;
  // Speed of RTP time relative to the right 90 kHz: 1 where it is exact. 0 for UDP.
  double rtp_clock_ratio = 0;

  // Where null packets bring the stream to the rate ordered.
  std::optional<FillPlan> fill;

  // Bytes of stream that leave each second, lost ones included.
  double PayloadBytesPerSecond(const Sizes& sizes) const;
};

// How much faster than its own time a stream is played.
double SpeedOf(const PlayOptions& options);

// How much of an input that comes once is read, and waits, before it is played.
std::chrono::nanoseconds ReadAhead(const PlayOptions& options, bool live);

// `format` is that of the packets that are played.
Result<Rates> PlanRates(const PlayOptions& options, const StreamFacts& facts, PacketFormat format,
                        const Sizes& sizes);

// The record that orders jitter and bursts.
ParametricSettings ShapeFor(const PlayOptions& options, std::uint64_t batch);

}  // namespace ipplay
