// SPDX-License-Identifier: MIT
// What a lineup reports: a table while it runs and at the end, and one JSON document.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/json.h"
#include "host/lineup/channel.h"
#include "host/lineup/part_result.h"

namespace ipplay {

Json JsonOf(const ChannelStatus& status);

struct LineupFacts {
  std::string file;
  std::optional<Part> part;
  std::string machine;
  std::optional<std::int64_t> clock_error_ns;
  std::optional<std::int64_t> start_at_ns;  // as ordered for all parts; since 1970, as all
  std::int64_t started_ns = 0;
  std::int64_t updated_ns = 0;
  std::vector<BrokenRun> broken_runs;  // of this part, before this one
};

// `outcome` is "running", "ended" or "failed".
std::string LineupJson(const LineupFacts& facts, std::string_view outcome,
                       std::span<const ChannelStatus> channels);

// Failed ones first, then by frames not sent, late frames and lateness.
void SortWorstFirst(std::vector<ChannelStatus>& channels);

// A heading and a line for each, the first `rows` of them; then how many there are in each state.
std::string LineupTable(std::span<const ChannelStatus> channels, std::size_t rows);

// Whether something went wrong that nobody ordered: a failure, or frames that did not leave.
bool HasFailed(const ChannelStatus& status);

}  // namespace ipplay
