// SPDX-License-Identifier: MIT
// A lineup from its file to its end: checked, started together, watched, reloaded.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/lineup/part.h"

namespace ipplay {

struct LineupOptions {
  std::string file;
  std::optional<Part> part;
  std::optional<std::chrono::nanoseconds> start_at;  // since 1970; of all channels
  std::string results;  // a folder for the result of this part; empty: none
  bool check = false;
  bool json = false;
  bool quiet = false;
};

// Says everything that is wrong with the file, its inputs and its targets; sends nothing.
Result<int> CheckLineup(const LineupOptions& options);

// Until all channels have ended, or a signal comes. The exit status is 0 only if every channel
// played without a failure and all its frames left.
Result<int> RunLineup(const LineupOptions& options);

}  // namespace ipplay
