// SPDX-License-Identifier: MIT
// Which of the library's interfaces plays a plan.
#pragma once

#include <memory>
#include <optional>

#include "host/play/plan_twin.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"
#include "host/play/playing.h"
#include "host/stream/packet_format.h"
#include "host/stream/stream_faults.h"

namespace ipplay {

// `faults` are made in a stream that is written by marks; else by its feeder. Null for none. By a
// schedule where the plan says so, by time marks where it follows the PCRs; with a twin on a second
// path, too. `format` is that of the packets that are played.
std::unique_ptr<Playing> MakePlaying(const PlayOptions& options, const PlayPlan& plan,
                                     PacketFormat format, StreamFaults* faults = nullptr,
                                     const std::optional<TwinPath>& twin = std::nullopt);

}  // namespace ipplay
