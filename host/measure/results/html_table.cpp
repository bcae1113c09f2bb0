// SPDX-License-Identifier: MIT
#include "host/measure/results/html_table.h"

#include <fmt/format.h>

#include <iterator>

#include "host/measure/results/chart.h"

namespace ipplay::measure {
namespace {

using Out = std::back_insert_iterator<std::string>;

void WriteRow(Out out, const HtmlTable& table, const std::vector<HtmlCell>& row) {
  fmt::format_to(out, "<tr>");
  for (std::size_t i = 0; i < row.size(); ++i) {
    const char* bad = row[i].bad ? " class=\"bad\"" : "";
    const std::string text = EscapeHtml(row[i].text);
    if (i == 0) {
      fmt::format_to(out, "<th scope=\"row\"{}>{}</th>", bad, text);
    } else if (i < table.columns.size()) {
      fmt::format_to(out, "<td{} data-name=\"{}\">{}</td>", bad, table.columns[i], text);
    } else {
      fmt::format_to(out, "<td{}>{}</td>", bad, text);
    }
  }
  fmt::format_to(out, "</tr>\n");
}

}  // namespace

std::string TableHtml(const HtmlTable& table) {
  std::string html;
  const Out out(html);
  const char* kind = table.columns.empty() ? "facts" : table.of_text ? "cards left" : "cards";
  fmt::format_to(out, "<div class=\"scroll\"><table class=\"{}\"><caption>{}</caption>\n", kind,
                 EscapeHtml(table.caption));
  if (!table.columns.empty()) {
    fmt::format_to(out, "<thead><tr>");
    for (const char* column : table.columns) {
      fmt::format_to(out, "<th scope=\"col\">{}</th>", column);
    }
    fmt::format_to(out, "</tr></thead>\n");
  }
  fmt::format_to(out, "<tbody>\n");
  for (const auto& row : table.rows) {
    WriteRow(out, table, row);
  }
  fmt::format_to(out, "</tbody></table></div>\n");
  return html;
}

}  // namespace ipplay::measure
