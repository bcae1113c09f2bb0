// SPDX-License-Identifier: MIT
// The second of two paths on which the same RTP is sent (SMPTE ST 2022-7).
#pragma once

#include <optional>

#include "host/base/result.h"
#include "host/library/path.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"

namespace ipplay {

struct TwinPath {
  PlayOptions options;  // as if it were the only one
  Path path;
  PlayPlan plan;
};

// What is ordered and cannot be, as far as the options alone show.
std::optional<Failure> CheckTwin(const PlayOptions& options);

// The options of the second path; random numbers start at another place than `seed`.
PlayOptions TwinOptions(const PlayOptions& options, std::uint64_t seed);

// Gives both the same sequence numbers and SSRC, or says why they cannot be twins.
std::optional<Failure> MakeTwins(PlayPlan& plan, TwinPath& twin);

}  // namespace ipplay
