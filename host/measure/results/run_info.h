// SPDX-License-Identifier: MIT
// What every result says about how it came about.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ipplay::measure {

struct RunInfo {
  std::string version;
  std::int64_t started_ns = 0;  // since 1970, by this machine's clock
  // Every option in force and its value: those that were given, and those that have a default.
  std::vector<std::pair<std::string, std::string>> options;
};

}  // namespace ipplay::measure
