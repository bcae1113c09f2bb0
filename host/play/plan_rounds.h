// SPDX-License-Identifier: MIT
// What a playout reads of its input: rounds, their bytes, and how their clocks are joined.
#pragma once

#include <cstdint>
#include <optional>

#include "host/base/result.h"
#include "host/play/play_options.h"
#include "host/stream/restamper.h"
#include "host/stream/stream_facts.h"

namespace ipplay {

inline constexpr double kNearWrapSeconds = 3;  // before the wraps, with --near-wrap

struct Rounds {
  std::optional<std::uint64_t> count;  // none: without end
  std::optional<RestampPlan> restamp;
  std::optional<std::uint64_t> round_bytes;  // as played; none for a pipe
  bool live = false;                         // comes at its own pace
  std::optional<std::uint64_t> total_bytes;  // of all rounds; none without an end
  std::size_t streams = 1;                   // in a round

  // That are played in all.
  std::optional<std::uint64_t> Streams() const {
    return count ? std::optional(*count * streams) : std::nullopt;
  }
};

Result<Rounds> PlanRounds(const PlayOptions& options, const StreamFacts& facts);

}  // namespace ipplay
