// SPDX-License-Identifier: MIT
#include "host/measure/results/report_twins.h"

#include <fmt/format.h>

#include "host/measure/results/chart.h"
#include "host/measure/results/html_table.h"
#include "host/measure/results/report_charts.h"
#include "host/measure/results/report_stream.h"
#include "host/measure/results/twin_lines.h"

namespace ipplay::measure {

std::string TwinSectionHtml(const Summary& summary, const Measurement& measurement,
                            std::size_t number) {
  const TwinSummary& twins = summary.twins[number];
  std::string html = "<details open><summary><h2>Twin paths</h2></summary>\n";
  HtmlTable table{"Figures", true, {}, {}};
  table.rows.push_back({{"first"}, {StreamName(summary.streams[twins.streams[0]])}});
  table.rows.push_back({{"second"}, {StreamName(summary.streams[twins.streams[1]])}});
  for (FigureLine& line : TwinLines(twins)) {
    table.rows.push_back({{std::move(line.name)}, {std::move(line.text)}});
  }
  const std::vector<Chart> charts = TwinCharts(measurement, number);
  if (!charts.empty()) {
    html += "<div class=\"charts\">\n";
    for (const Chart& chart : charts) {
      html += ChartHtml(chart);
    }
    html += "</div>\n";
  }
  return html + TableHtml(table) + "</details>\n";
}

}  // namespace ipplay::measure
