// SPDX-License-Identifier: MIT
#include "host/measure/results/twin_lines.h"

#include <fmt/format.h>

#include "host/base/units.h"

namespace ipplay::measure {
namespace {

std::string SkewText(const TwinFigures& figures) {
  if (figures.skews == 0) {
    return "not measured";
  }
  return fmt::format("of the second path: min {}, mean {}, max {}",
                     FormatNanoseconds(static_cast<double>(figures.skew_min_ns)),
                     FormatNanoseconds(figures.skew_mean_ns),
                     FormatNanoseconds(static_cast<double>(figures.skew_max_ns)));
}

// Words for faults, where there are any.
std::string FaultsText(const TwinFigures& figures) {
  std::string text;
  const auto add = [&](std::uint64_t count, const char* what) {
    if (count > 0) {
      text += fmt::format("{}{} {}", text.empty() ? "" : ", ", FormatCount(count), what);
    }
  };
  add(figures.different, "not the same on both paths");
  add(figures.late, "too late for the other path");
  add(figures.lost_before, "lost before the second path was there");
  add(figures.restarts, "times numbered anew");
  return text;
}

std::string FecText(const TwinSummary& twins) {
  const FecCounters& fec = *twins.combined.fec;
  const auto unrepaired = twins.Unrepaired();
  return fmt::format("of both paths: repaired {}, parity wrong {}; stay lost {}",
                     FormatCount(fec.repaired), FormatCount(fec.parity_wrong),
                     unrepaired ? FormatCount(*unrepaired) : "not measured");
}

std::string CombinedText(const StreamSummary& combined) {
  std::string text =
      fmt::format("lost {} in {} periods (longest {})", FormatCount(combined.rtp->lost),
                  FormatCount(combined.rtp->loss_periods), FormatCount(combined.rtp->longest_loss));
  if (combined.ts && combined.frames_without_detail == 0) {
    text += fmt::format(", TS errors {}, continuity errors {}", FormatCount(combined.ts->errors),
                        FormatCount(combined.ts->counters.continuity_errors));
  }
  if (combined.mdi.delay_factor) {
    text += fmt::format(", delay factor max {}", FormatNanoseconds(combined.mdi.delay_factor->max));
  }
  return text + fmt::format(", longest silence {}", FormatNanoseconds(combined.longest_silence));
}

}  // namespace

std::vector<FigureLine> TwinLines(const TwinSummary& twins) {
  const TwinFigures& figures = twins.figures;
  std::vector<FigureLine> lines{
      {"skew", SkewText(figures)},
      {"lost", fmt::format("{} on the first, {} on the second, {} on both, of {} packets",
                           FormatCount(figures.lost[0]), FormatCount(figures.lost[1]),
                           FormatCount(figures.lost_together), FormatCount(figures.packets))}};
  if (std::string faults = FaultsText(figures); !faults.empty()) {
    lines.push_back({"also", std::move(faults)});
  }
  if (twins.combined.rtp && twins.combined.rate.frames > 0) {
    lines.push_back({"as one", CombinedText(twins.combined)});
  }
  if (twins.combined.fec) {
    lines.push_back({"FEC", FecText(twins)});
  }
  return lines;
}

}  // namespace ipplay::measure
