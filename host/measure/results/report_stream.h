// SPDX-License-Identifier: MIT
// One stream in the report: plots, every figure, indicators and PIDs.
#pragma once

#include <cstddef>
#include <string>

#include "host/measure/figures/measurement.h"
#include "host/measure/results/summary.h"

namespace ipplay::measure {

std::string StreamName(const StreamSummary& stream);

// Of stream `number`, in order of arrival; without plots where it has no history.
std::string StreamSectionHtml(const Summary& summary, const Measurement& measurement,
                              std::size_t number);

}  // namespace ipplay::measure
