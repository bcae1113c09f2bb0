// SPDX-License-Identifier: MIT
// The limits of a measurement, and whether it met them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/measure/results/summary.h"

namespace ipplay::measure {

enum class LimitUnit { kDuration, kCount, kCountOrPercent, kPpm };

// What a limit relies on beyond the frames' headers.
enum class LooksAt { kFrames, kChecksums, kPayload };

// One --max-... option.
struct LimitKind {
  const char* option;  // "--max-loss"
  LimitUnit unit;
  const char* what;  // what it limits, as the help says it
  // The measured value, worst stream or sum; none where it could not be measured.
  std::optional<double> (*measured)(const Summary& summary);
  // Frames that the capture dropped make it look worse than on the wire.
  bool spoiled_by_drops;
  LooksAt looks_at = LooksAt::kFrames;
};

std::span<const LimitKind> LimitKinds();

struct Limit {
  const LimitKind* kind = nullptr;
  double value = 0;  // nanoseconds, a count, a percentage or parts per million
  bool is_percent = false;
};

// Reads a limit as the command line gives it; none when it cannot be.
std::optional<Limit> ParseLimit(const LimitKind& kind, const std::string& text);

struct Verdict {
  std::string name;
  std::string limit;
  std::string measured;
  bool met = false;
};

struct Requirements {
  std::vector<Limit> limits;
  std::optional<std::uint64_t> min_streams;
  bool content_equal = false;  // --expect was given
};

// One verdict for every requirement, and two that the measurement can be relied on: that there was
// anything to measure, and that the capture lost nothing. None without requirements.
std::vector<Verdict> Judge(const Summary& summary, const Requirements& requirements);
bool AllMet(std::span<const Verdict> verdicts);

}  // namespace ipplay::measure
