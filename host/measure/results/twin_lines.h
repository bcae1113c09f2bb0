// SPDX-License-Identifier: MIT
// The figures of two paths of one stream, as text.
#pragma once

#include <vector>

#include "host/measure/results/figure_line.h"
#include "host/measure/results/summary.h"

namespace ipplay::measure {

std::vector<FigureLine> TwinLines(const TwinSummary& twins);

}  // namespace ipplay::measure
