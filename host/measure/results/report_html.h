// SPDX-License-Identifier: MIT
// The measurement as one self-contained HTML page with plots.
#pragma once

#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/measure/figures/measurement.h"
#include "host/measure/results/limits.h"
#include "host/measure/results/summary.h"

namespace ipplay::measure {

struct ReportSource {
  const Summary& summary;
  const Measurement& measurement;  // the one that the summary is of
  std::span<const Verdict> verdicts;
  // What the user asked for: option and value.
  std::vector<std::pair<std::string, std::string>> settings;
  std::string date;
};

std::string ReportHtml(const ReportSource& source);

}  // namespace ipplay::measure
