// SPDX-License-Identifier: MIT
// The settings of a playout that has been planned, for the library's playouts with handles.
#pragma once

#include "host/library/path.h"
#include "host/library/settings.h"
#include "host/play/plan_settings.h"
#include "host/play/play_options.h"
#include "ipplayout/playouts.h"

namespace ipplay {

// `settings` is what the one process-wide playout would get. They differ in the rate: here a lost
// datagram keeps its place in time, and RTP time follows the schedule, not the frames.
IpPlayoutSettings ScheduleFor(const PlayOptions& options, const Path& path,
                              const Decisions& decided, const Settings& settings);

}  // namespace ipplay
