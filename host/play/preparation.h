// SPDX-License-Identifier: MIT
// What comes before a playout: the way to its target, a look at its input, and the plan.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "host/base/result.h"
#include "host/library/adapters.h"
#include "host/library/path.h"
#include "host/play/plan_twin.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"
#include "host/stream/input.h"
#include "host/stream/round_reader.h"
#include "host/stream/stream_facts.h"

namespace ipplay {

// A target beyond the first.
struct Output {
  PlayOptions options;  // as if it were the only one
  Path path;
  PlayPlan plan;
};

struct Prepared {
  Path path;
  StreamFacts facts;
  PlayPlan plan;
  Input input;  // at its first packet; the first of a list
  std::vector<Output> further{};
  std::optional<TwinPath> twin{};           // with --twin
  std::vector<RoundReader::Stream> then{};  // the rest of a list
};

// Takes the inputs.
std::unique_ptr<RoundReader> MakeReader(Prepared&& prepared);

// Sends nothing. No read of the input goes on once `stop_fd` is readable.
Result<Prepared> Prepare(const PlayOptions& options, const std::vector<Adapter>& adapters,
                         int stop_fd);

// The same in steps, for an input that may be long in coming.
struct Opened {
  Input input;  // at its first packet; the first of a list
  StreamFacts facts;
  std::vector<RoundReader::Stream> then{};  // the rest of a list
};
// Not a file that is there, whole: looking at it waits for others.
bool ComesAtItsOwnPace(const PlayOptions& options);
// What is wrong whatever the input is.
std::optional<Failure> CheckWithoutInput(const PlayOptions& options,
                                         const std::vector<Adapter>& adapters);
// Waits for as much as has to be known of it. Needs no rights but those to read it.
Result<Opened> LookAtInput(const PlayOptions& options, int stop_fd);
Result<Prepared> Prepare(const PlayOptions& options, const std::vector<Adapter>& adapters,
                         Opened&& opened);

// Asks for the destination's MAC address unless the user gave it or it follows from the address.
std::optional<Failure> CompletePath(const PlayOptions& options, Path& path, PlayPlan& plan);

// The payload of the first datagram, which is read from the input.
std::vector<std::uint8_t> FirstPayload(const PlayPlan& plan, const StreamFacts& facts,
                                       Input& input);

}  // namespace ipplay
