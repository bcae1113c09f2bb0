// SPDX-License-Identifier: MIT
// Which charts the report has, and what they are drawn from.
#pragma once

#include <vector>

#include "host/measure/figures/measurement.h"
#include "host/measure/figures/stream.h"
#include "host/measure/results/chart.h"

namespace ipplay::measure {

// Rate and gaps over time, over all streams.
std::vector<Chart> TotalCharts(const Measurement& measurement);

// Loss of two paths and skew over time of pair `number`; none where there is no history.
std::vector<Chart> TwinCharts(const Measurement& measurement, std::size_t number);

// Histograms of gaps and their errors, gaps and rate over time, media delivery index and PCR jitter
// of stream `number`, in order of arrival, that has a history. Its events are marked.
std::vector<Chart> StreamCharts(const Measurement& measurement, std::size_t number);

}  // namespace ipplay::measure
