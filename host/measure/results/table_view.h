// SPDX-License-Identifier: MIT
// The measurement on a terminal.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "host/measure/results/figure_line.h"
#include "host/measure/results/limits.h"
#include "host/measure/results/summary.h"

namespace ipplay::measure {

// Totals, and one line for each of the given streams, no wider than `columns` if that can be.
std::string LiveTable(const CaptureSummary& capture, const TotalSummary& total,
                      std::span<const StreamSummary> streams, std::size_t columns);

// The whole result: totals, at most `max_streams` lines of streams, every figure of the first
// `detailed` ones, verdicts.
struct ResultTableSettings {
  std::size_t max_streams = 40;
  std::size_t detailed = 2;
  std::size_t columns = 132;
};
std::string ResultTable(const Summary& summary, std::span<const Verdict> verdicts,
                        const ResultTableSettings& settings);

// What was captured besides UDP frames, and what else is out of the ordinary: lines, or none.
std::string OdditiesText(const CaptureSummary& capture, const TotalSummary& total);

// Every figure of a stream.
std::vector<FigureLine> FigureLines(const StreamSummary& stream);

}  // namespace ipplay::measure
