// SPDX-License-Identifier: MIT
// All parts of a lineup together, and what is wrong with the whole.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/base/json.h"
#include "host/base/result.h"
#include "host/lineup/part_result.h"

namespace ipplay {

// A part writes its result anew every five seconds; clocks may differ a little.
inline constexpr std::int64_t kDeadAfterNs = 20'000'000'000;

struct Gathered {
  std::vector<PartResult> parts;  // by number
  std::uint32_t of = 0;
  std::vector<std::string> unusable;  // files, with what is wrong
  std::set<std::uint32_t> missing_parts;
  std::vector<std::string> missing_channels;  // of the lineup, where it is known
  std::vector<std::string> foreign_channels;  // that it does not have
  std::vector<Json> channels;                 // with their part and machine, worst first
};

struct GatherLimits {
  std::optional<std::chrono::nanoseconds> lateness, clock_error;
};

// `lineup`: the file with all channels that there should be, or empty.
Result<Gathered> ReadParts(const std::string& folder, const std::string& lineup);

// "ended", "failed", "running", or "died": it runs by its result, which is old.
std::string StateOf(const PartResult& part);

bool HasFailed(const Json& channel);

// Parts and channels that are missing, there twice, of another run or lineup, or have failed: a
// sentence for each.
std::vector<std::string> FindFailures(const Gathered& gathered);

// Limits are not met by what is not known.
std::vector<std::string> FindUnmet(const Gathered& gathered, const GatherLimits& limits);

// Of a channel: 1 % of the frames left later than this.
inline constexpr const char* kLatenessPath = "/departures/lateness_ns/p99";
inline constexpr const char* kLatePath = "/departures/late";
inline constexpr const char* kNotSentPath = "/departures/not_sent";

}  // namespace ipplay
