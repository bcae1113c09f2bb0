// SPDX-License-Identifier: MIT
// From options to a playout that can be started: everything is decided and checked here, before
// anything is sent.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/library/path.h"
#include "host/library/settings.h"
#include "host/play/play_options.h"
#include "host/stream/restamper.h"
#include "host/stream/stream_facts.h"

namespace ipplay {

struct PlayPlan {
  Settings settings;
  std::optional<RestampPlan> restamp;
  std::optional<std::uint64_t> rounds;       // nothing: for ever
  std::optional<std::uint64_t> round_bytes;  // as played; nothing of a pipe
  std::optional<std::uint64_t> total_bytes;  // of all rounds; nothing where there is no end

  std::uint32_t header_bytes = 0;   // all headers of a frame
  std::uint32_t payload_bytes = 0;  // of a full frame
  std::uint32_t frame_bytes = 0;    // Ethernet header to end of payload
  std::uint32_t copies = 1;
  double stream_rate = 0;           // bits per second of transport stream, off speed included
  double frame_rate = 0;            // bits per second of one stream's frames
  double share_that_leaves = 1;     // of the datagrams; the rest is lost on purpose
  std::uint64_t batch = 1;          // frames that the library hands to the adapter at a time
  std::chrono::nanoseconds gap{0};  // between frames, all copies counted
  // How fast RTP time runs against the right 90 kHz: 1 where it is exact. 0 for UDP.
  double rtp_clock_ratio = 0;
  std::vector<std::string> notes;  // what the user should know, a line each
};

Result<PlayPlan> MakePlan(const PlayOptions& options, const StreamFacts& facts, const Path& path);

}  // namespace ipplay
