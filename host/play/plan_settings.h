// SPDX-License-Identifier: MIT
// The library's settings for a playout that has been planned.
#pragma once

#include "host/library/path.h"
#include "host/library/settings.h"
#include "host/play/plan_headers.h"
#include "host/play/plan_rates.h"
#include "host/play/plan_rounds.h"
#include "host/play/plan_sizes.h"
#include "host/play/play_options.h"
#include "host/stream/packet_format.h"

namespace ipplay {

// What the other parts of the plan decided.
struct Decisions {
  PacketFormat format;
  Headers headers;
  Sizes sizes;
  Rates rates;
  Rounds rounds;
};

Settings SettingsFor(const PlayOptions& options, const Path& path, const Decisions& decided);

}  // namespace ipplay
