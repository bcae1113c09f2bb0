// SPDX-License-Identifier: MIT
// A section of the page for two streams that are one on two paths.
#pragma once

#include <cstddef>
#include <string>

#include "host/measure/figures/measurement.h"
#include "host/measure/results/summary.h"

namespace ipplay::measure {

// `number` is the place of the pair among those of the summary.
std::string TwinSectionHtml(const Summary& summary, const Measurement& measurement,
                            std::size_t number);

}  // namespace ipplay::measure
