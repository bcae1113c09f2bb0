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

// Every report starts with it.
inline constexpr std::string_view kReportStart =
    "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
    "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
    "<title>Measurement of ";
std::string ReportHtml(const ReportSource& source);

}  // namespace ipplay::measure
