// SPDX-License-Identifier: MIT
// One measurement from the opening of its source to its results.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/measure/measure_options.h"

namespace ipplay::measure {

// Exit status where a limit was not met; the others are ExitStatus.
inline constexpr int kLimitsNotMet = 4;

// Measures, prints and writes what was asked for. The exit status, or why there is none. `settings`
// are the options in force, for the results.
Result<int> RunMeasurement(const MeasureOptions& options,
                           const std::vector<std::pair<std::string, std::string>>& settings);

}  // namespace ipplay::measure
