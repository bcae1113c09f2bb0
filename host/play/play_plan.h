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
#include "host/play/plan_rates.h"
#include "host/play/plan_rounds.h"
#include "host/play/plan_sizes.h"
#include "host/play/play_options.h"
#include "host/stream/stream_editor.h"
#include "host/stream/stream_facts.h"
#include "ipplayout/playouts.h"

namespace ipplay {

struct PlayPlan {
  Sizes sizes;
  Rates rates;
  Rounds rounds;
  EditPlan edits;
  std::uint32_t copies = 1;
  double speed = 1;  // --speed, without --ppm
  Damage damage;     // of the input, as the notes say
  Settings settings;
  bool by_schedule = false;         // by a playout with a handle
  IpPlayoutSettings schedule{};     // its settings
  std::optional<PcrRate> pcr_rate;  // of a stream that is played at the times of its PCRs
  bool by_arrival = false;          // a capture is played at the times of its datagrams
  // The clock of an input that comes once is followed, and what it brings waits for so long.
  std::optional<std::chrono::nanoseconds> lead;
  std::vector<std::string> notes;  // what the user should know, a line each

  // The stream's own times say when it leaves, not a rate.
  bool IsMarked() const { return pcr_rate || by_arrival; }
};

// "INPUT is damaged in 2 places: ...".
std::string DamageText(const Damage& damage);

Result<PlayPlan> MakePlan(const PlayOptions& options, const StreamFacts& facts, const Path& path);

}  // namespace ipplay
