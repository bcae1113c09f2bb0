// SPDX-License-Identifier: MIT
#include "host/measure/results/report_stream.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "host/base/units.h"
#include "host/measure/results/chart.h"
#include "host/measure/results/clock_text.h"
#include "host/measure/results/html_table.h"
#include "host/measure/results/report_charts.h"
#include "host/measure/results/table_view.h"

namespace ipplay::measure {
namespace {

constexpr const char* kNoValue = "–";
constexpr const char* kIndicatorLines = "TR 101 290";

std::string Time(const std::optional<double>& ns) {
  return ns ? FormatNanoseconds(*ns) : kNoValue;
}

HtmlTable FigureTable(const StreamSummary& stream) {
  HtmlTable table{"Figures", true, {}, {}};
  for (FigureLine& line : FigureLines(stream)) {
    if (line.name != kIndicatorLines) {
      table.rows.push_back({{std::move(line.name)}, {std::move(line.text)}});
    }
  }
  return table;
}

// Short words are the names of tables and fields.
std::string NameOf(const IndicatorInfo& info) {
  constexpr std::size_t kShort = 3;
  std::string name = info.name;
  for (std::size_t begin = 0; begin < name.size();) {
    const std::size_t end = std::min(name.find('_', begin), name.size());
    if (end - begin <= kShort) {
      std::transform(&name[begin], &name[end], &name[begin], ::toupper);
    }
    if (end < name.size()) {
      name[end] = ' ';
    }
    begin = end + 1;
  }
  return name;
}

HtmlTable IndicatorTable(const TsFigures& ts) {
  HtmlTable table{"Indicators of ETSI TR 101 290, 5.2",
                  true,
                  {"indicator", "errors", "last", "priority", "limit"},
                  {}};
  for (const auto& [info, state] : ts.indicators) {
    table.rows.push_back({{fmt::format("{} {}", info->clause, NameOf(*info))},
                          {state.measured ? FormatCount(state.count) : kNoValue, state.count > 0},
                          {state.count > 0 ? ClockText(state.last_ns) : kNoValue},
                          {fmt::format("{}", info->priority)},
                          {info->limit}});
  }
  return table;
}

HtmlTable PidsTable(const TsFigures& ts) {
  HtmlTable table{
      "PIDs",
      false,
      {"PID", "packets", "bit rate", "continuity errors", "PCR interval max", "repetition errors",
       "discontinuities", "PCR accuracy", "PCR arrival", "PCR frequency offset"},
      {}};
  for (const PidSummary& pid : ts.pids) {
    const PcrFigures pcr = pid.pcr.value_or(PcrFigures());
    const auto errors = [&](std::uint64_t count) {
      return HtmlCell{pid.pcr ? FormatCount(count) : kNoValue, count > 0};
    };
    const auto& offset = pcr.frequency_offset_ppm;
    table.rows.push_back(
        {{fmt::format("{0} (0x{0:04X})", pid.pid)},
         {FormatCount(pid.packets), pid.packets == 0},
         {pid.bit_rate ? FormatBitRate(*pid.bit_rate) : kNoValue},
         {FormatCount(pid.continuity_errors), pid.continuity_errors > 0},
         {pcr.interval.count > 0 ? Time(static_cast<double>(pcr.interval.max_ns)) : kNoValue},
         errors(pcr.repetition_errors),
         errors(pcr.discontinuity_errors),
         {Time(pcr.accuracy_spread), pcr.accuracy_errors > 0},
         {Time(pcr.arrival_spread)},
         {offset ? fmt::format("{:+.2f} ppm", *offset) : kNoValue}});
  }
  return table;
}

}  // namespace

std::string StreamName(const StreamSummary& stream) {
  std::string name = fmt::format("{} to {}", stream.source, stream.destination);
  if (!stream.vlan.empty()) {
    name += fmt::format(", VLAN {}", stream.vlan);
  }
  if (stream.ssrc) {
    name += fmt::format(", SSRC {:08x}", *stream.ssrc);
  }
  return name;
}

std::string StreamSectionHtml(const Summary& summary, const Measurement& measurement,
                              std::size_t number) {
  const StreamSummary& stream = summary.streams[number];
  std::string html =
      fmt::format("<details open><summary><h2>{}</h2></summary>\n", EscapeHtml(StreamName(stream)));
  if (measurement.Streams().Streams()[number]->History() != nullptr) {
    html += "<div class=\"charts\">\n";
    for (const Chart& chart : StreamCharts(measurement, number)) {
      html += ChartHtml(chart);
    }
    html += "</div>\n";
  }
  html += TableHtml(FigureTable(stream));
  if (stream.ts) {
    html += TableHtml(IndicatorTable(*stream.ts)) + TableHtml(PidsTable(*stream.ts));
  }
  return html + "</details>\n";
}

}  // namespace ipplay::measure
