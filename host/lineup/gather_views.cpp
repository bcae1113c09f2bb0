// SPDX-License-Identifier: MIT
#include "host/lineup/gather_views.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "host/base/json.h"
#include "host/base/text.h"
#include "host/base/units.h"
#include "host/measure/results/chart.h"
#include "host/measure/results/clock_text.h"
#include "host/measure/results/html_table.h"
#include "host/measure/results/report_style.h"

namespace ipplay {
namespace {

using measure::HtmlCell;
using measure::HtmlTable;
using Number = std::optional<std::int64_t>;
using Out = std::back_insert_iterator<std::string>;

// A page with ten thousand rows helps nobody; the JSON text has them all.
constexpr std::size_t kMostRows = 1000;

std::string Time(const Number& ns) {
  return ns ? FormatDuration(std::chrono::nanoseconds(*ns)) : "-";
}

std::string Count(const Number& number) {
  return number ? FormatCount(static_cast<std::uint64_t>(std::max<std::int64_t>(*number, 0))) : "-";
}

// When the channels of a part began, by how much later than those of the first one.
std::string BeganAfter(const Gathered& gathered, const PartResult& part) {
  Number first;
  for (const PartResult& each : gathered.parts) {
    if (each.first_start_ns && (!first || *each.first_start_ns < *first)) {
      first = each.first_start_ns;
    }
  }
  return part.first_start_ns ? fmt::format("+{}", Time(*part.first_start_ns - *first)) : "-";
}

std::string BrokenRunText(const PartResult& part, const BrokenRun& run) {
  return fmt::format("part {} broke off on {}, last heard of at {}; its last run was on {}",
                     part.part.Text(), run.machine, measure::DateText(run.updated_ns),
                     part.machine);
}

std::vector<std::string> BrokenRunTexts(const Gathered& gathered) {
  std::vector<std::string> texts;
  for (const PartResult& part : gathered.parts) {
    for (const BrokenRun& run : part.broken_runs) {
      texts.push_back(BrokenRunText(part, run));
    }
  }
  return texts;
}

bool IsGood(const PartResult& part) {
  return StateOf(part) == "ended";
}

void WriteList(Out out, const char* title, std::span<const std::string> lines) {
  if (lines.empty()) {
    return;
  }
  fmt::format_to(out, "\n{}:\n", title);
  for (const std::string& line : lines) {
    fmt::format_to(out, "  {}\n", QuotedLine(line));
  }
}

void WriteHeader(Out out, const Gathered& gathered, std::span<const std::string> wrong) {
  fmt::format_to(out,
                 "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                 "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
                 "<title>Lineup of {0} channels</title><style>{1}</style></head>\n<body><main>\n"
                 "<header><h1>Lineup of {0} channels in {2} parts</h1></header>\n",
                 FormatCount(gathered.channels.size()), measure::kReportStyle,
                 FormatCount(gathered.of));
  if (wrong.empty()) {
    fmt::format_to(out, "<p class=\"banner met\">Nothing is wrong.</p>\n");
  }
}

void WriteLines(Out out, const char* title, const char* caption,
                std::span<const std::string> lines) {
  if (lines.empty()) {
    return;
  }
  HtmlTable table{caption, true, {title}, {}};
  for (const std::string& line : lines) {
    table.rows.push_back({{line}});
  }
  fmt::format_to(out, "<h2>{}</h2>\n{}", title, measure::TableHtml(table));
}

void WriteParts(Out out, const Gathered& gathered) {
  HtmlTable table{
      "One row for each result; clock error: the largest one, as the kernel of the "
      "machine estimates it; began: after the first part",
      false,
      {"part", "machine", "state", "channels", "clock error", "began"},
      {}};
  for (const PartResult& part : gathered.parts) {
    table.rows.push_back({{part.part.Text(), !IsGood(part)},
                          {part.machine},
                          {StateOf(part), !IsGood(part)},
                          {FormatCount(part.channels.size())},
                          {part.clock_error_ns ? Time(part.clock_error_ns) : "not synchronised"},
                          {BeganAfter(gathered, part)}});
  }
  for (const std::uint32_t number : gathered.missing_parts) {
    table.rows.push_back({{fmt::format("{}/{}", number, gathered.of), true},
                          {"-"},
                          {"missing", true},
                          {"-"},
                          {"-"},
                          {"-"}});
  }
  fmt::format_to(out, "<h2>Machines</h2>\n{}", measure::TableHtml(table));
}

std::vector<HtmlCell> ChannelRow(const Json& channel) {
  const auto count = [&channel](const char* path) {
    const Number number = NumberAt(channel, path);
    return HtmlCell{Count(number), number.value_or(0) > 0};
  };
  return {{TextAt(channel, "/name"), HasFailed(channel)},
          {TextAt(channel, "/state"), TextAt(channel, "/state") == "failed"},
          {TextAt(channel, "/machine")},
          {TextAt(channel, "/target")},
          {Count(NumberAt(channel, "/datagrams"))},
          {Time(NumberAt(channel, kLatenessPath))},
          count(kLatePath),
          count(kNotSentPath),
          {TextAt(channel, "/last_error")}};
}

void WriteChannels(Out out, const Gathered& gathered) {
  HtmlTable table{
      "Worst first: those that failed, then by frames not sent, frames that left more than 1 ms "
      "late, and lateness",
      false,
      {"channel", "state", "machine", "target", "datagrams", "lateness p99", "late", "not sent",
       "error"},
      {}};
  const std::size_t shown = std::min(gathered.channels.size(), kMostRows);
  for (const Json& channel : std::span(gathered.channels).first(shown)) {
    table.rows.push_back(ChannelRow(channel));
  }
  fmt::format_to(out, "<h2>Channels</h2>\n{}", measure::TableHtml(table));
  if (shown < gathered.channels.size()) {
    fmt::format_to(out, "<p>and {} more</p>\n", FormatCount(gathered.channels.size() - shown));
  }
}

}  // namespace

std::string GatheredJson(const Gathered& gathered, std::span<const std::string> wrong) {
  Json json{{"schema", kJsonSchema},
            {"outcome", wrong.empty() ? "ended" : "failed"},
            {"wrong", wrong},
            {"missing_parts", gathered.missing_parts},
            {"missing_channels", gathered.missing_channels},
            {"parts", Json::array()}};
  for (const PartResult& part : gathered.parts) {
    json["parts"].push_back({{"number", part.part.number},
                             {"of", part.part.of},
                             {"state", StateOf(part)},
                             {"machine", part.machine},
                             {"clock_error_ns", OrNull(part.clock_error_ns)},
                             {"started_ns", OrNull(part.started_ns)},
                             {"updated_ns", OrNull(part.updated_ns)},
                             {"first_start_ns", OrNull(part.first_start_ns)},
                             {"channels", part.channels.size()},
                             {"broken_runs", JsonOf(part.broken_runs)}});
  }
  json["channels"] = gathered.channels;
  return TextOf(json);
}

std::string GatheredTable(const Gathered& gathered, std::span<const std::string> wrong) {
  std::string text;
  const Out out(text);
  fmt::format_to(out, "{:<8} {:<20} {:<8} {:>9} {:>12} {:>12}\n", "part", "machine", "state",
                 "channels", "clock error", "began");
  for (const PartResult& part : gathered.parts) {
    fmt::format_to(out, "{:<8} {:<20} {:<8} {:>9} {:>12} {:>12}\n", part.part.Text(),
                   QuotedLine(part.machine), QuotedLine(StateOf(part)), part.channels.size(),
                   Time(part.clock_error_ns), BeganAfter(gathered, part));
  }
  fmt::format_to(out, "\n{:<20} {:<8} {:<20} {:>10} {:>8} {:>8}  {}\n", "channel", "state",
                 "machine", "late p99", "late", "not sent", "error");
  for (const Json& channel : gathered.channels) {
    fmt::format_to(out, "{:<20} {:<8} {:<20} {:>10} {:>8} {:>8}  {}\n",
                   QuotedLine(TextAt(channel, "/name")), QuotedLine(TextAt(channel, "/state")),
                   QuotedLine(TextAt(channel, "/machine")), Time(NumberAt(channel, kLatenessPath)),
                   Count(NumberAt(channel, kLatePath)), Count(NumberAt(channel, kNotSentPath)),
                   QuotedLine(TextAt(channel, "/last_error")));
  }
  WriteList(out, "Ran again", BrokenRunTexts(gathered));
  WriteList(out, "Wrong", wrong);
  return wrong.empty() ? text + "\nNothing is wrong\n" : text;
}

std::string GatheredPage(const Gathered& gathered, std::span<const std::string> wrong) {
  std::string html;
  const Out out(html);
  WriteHeader(out, gathered, wrong);
  WriteLines(out, "Wrong", "What is missing, has failed or is beyond a limit", wrong);
  WriteLines(out, "Ran again", "Parts that broke off, and were played again from their beginning",
             BrokenRunTexts(gathered));
  WriteParts(out, gathered);
  WriteChannels(out, gathered);
  fmt::format_to(out,
                 "<footer>Every figure is defined in docs/json.md.</footer>\n"
                 "</main></body></html>\n");
  return html;
}

}  // namespace ipplay
