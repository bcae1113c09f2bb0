// SPDX-License-Identifier: MIT
#include "host/measure/results/report_html.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <numeric>
#include <tuple>
#include <vector>

#include "host/base/units.h"
#include "host/measure/results/chart.h"
#include "host/measure/results/clock_text.h"
#include "host/measure/results/event_words.h"
#include "host/measure/results/html_table.h"
#include "host/measure/results/report_charts.h"
#include "host/measure/results/report_stream.h"
#include "host/measure/results/report_style.h"
#include "host/measure/results/report_twins.h"
#include "host/measure/results/table_view.h"

namespace ipplay::measure {
namespace {

using Out = std::back_insert_iterator<std::string>;

// A page with ten thousand rows helps nobody; the JSON text has them all.
constexpr std::size_t kMaxRows = 200;
constexpr std::size_t kMaxEvents = 500;
// Streams with all their plots and figures.
constexpr std::size_t kMaxSections = 8;

constexpr const char* kNoValue = "–";

void WriteTile(Out out, const std::string& value, const char* name, bool bad = false) {
  fmt::format_to(out, "<div class=\"tile{}\"><b>{}</b><span>{}</span></div>\n", bad ? " bad" : "",
                 value, name);
}

void WriteTiles(Out out, const Summary& summary) {
  const TotalSummary& total = summary.total;
  const auto counted = [&](std::uint64_t count, const char* name) {
    WriteTile(out, FormatCount(count), name, count > 0);
  };
  fmt::format_to(out, "<div class=\"tiles\">\n");
  WriteTile(out, FormatCount(total.streams), total.streams == 1 ? "stream" : "streams");
  WriteTile(out, FormatCount(total.rate.frames), "frames");
  WriteTile(out, fmt::format("{:.2f} s", total.rate.seconds), "from first to last frame");
  WriteTile(out, FormatBitRate(total.rate.frame_bit_rate), "in frames");
  WriteTile(out, FormatBitRate(total.rate.payload_bit_rate), "in payload");
  if (total.rtp_expected > 0 || total.ts_expected == 0) {
    counted(total.lost, "RTP packets lost");
  }
  if (total.ts_expected > 0) {
    counted(total.lost_ts_packets, "transport packets lost");
  }
  counted(total.duplicates, "duplicates");
  counted(total.reordered, "reordered");
  counted(total.checksums.bad_ip, "wrong IPv4 header checksums");
  counted(total.checksums.bad_udp, "wrong UDP checksums");
  counted(total.ts_errors, "transport stream errors, TR 101 290 first priority");
  if (summary.capture.live) {
    counted(summary.capture.drops.by_kernel + summary.capture.drops.by_adapter,
            "dropped by the capture");
  }
  fmt::format_to(out, "</div>\n");
}

void WriteVerdicts(Out out, std::span<const Verdict> verdicts) {
  if (verdicts.empty()) {
    return;
  }
  HtmlTable table{
      "Limits and what was measured", true, {"requirement", "verdict", "limit", "measured"}, {}};
  for (const Verdict& v : verdicts) {
    table.rows.push_back(
        {{v.name}, {v.met ? "met" : "NOT MET", !v.met}, {v.limit}, {v.measured, !v.met}});
  }
  fmt::format_to(out, "<h2>Verdicts</h2>\n{}", TableHtml(table));
}

// Numbers of the streams, worst first.
std::vector<std::size_t> WorstFirst(const std::vector<StreamSummary>& streams) {
  const auto badness = [&](std::size_t number) {
    const StreamSummary& s = streams[number];
    return std::tuple(s.seconds.unavailable + s.seconds.errored, s.Lost().value_or(0),
                      s.ts ? s.ts->errors : 0, s.ts ? s.ts->second_priority_errors : 0,
                      s.longest_silence);
  };
  std::vector<std::size_t> order(streams.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::ranges::stable_sort(order, std::ranges::greater(), badness);
  return order;
}

HtmlCell Fault(std::optional<std::uint64_t> count) {
  return {count ? FormatCount(*count) : kNoValue, count.value_or(0) > 0};
}

std::vector<HtmlCell> StreamRow(const StreamSummary& s) {
  using Count = std::optional<std::uint64_t>;
  const auto silence = static_cast<double>(Stream::kSilenceNs);
  return {{StreamName(s)},
          Fault(s.Lost()),
          Fault(s.ts ? Count(s.ts->errors) : Count()),
          Fault(s.ts ? Count(s.ts->second_priority_errors) : Count()),
          {FormatNanoseconds(s.longest_silence), s.longest_silence >= silence},
          {FormatNanoseconds(s.silent_at_end), s.silent_at_end >= silence},
          Fault(s.seconds.unavailable + s.seconds.errored),
          {FormatBitRate(s.rate.frame_bit_rate)},
          {s.rate.error_ppm ? fmt::format("{:+.1f}", *s.rate.error_ppm) : kNoValue},
          {s.spacing.gap_error.count > 0 ? FormatNanoseconds(s.spacing.gap_error.p99) : kNoValue},
          {s.rtp && s.rtp->has_jitter ? FormatNanoseconds(s.rtp->jitter_max) : kNoValue},
          {s.mdi.delay_factor ? FormatNanoseconds(s.mdi.delay_factor->max) : kNoValue},
          Fault(s.rtp ? Count(s.rtp->duplicates) : s.repeated_datagrams),
          Fault(s.rtp ? Count(s.rtp->reordered) : Count()),
          Fault(s.checksums.bad_ip + s.checksums.bad_udp),
          {FormatCount(s.rate.frames)}};
}

void WriteStreamTable(Out out, const Summary& summary, std::span<const std::size_t> order) {
  HtmlTable table{
      "Worst first: by seconds with errors or without frames, then by lost packets (of "
      "RTP; without it, of the transport stream), errors of the transport stream, of the first and "
      "of the second priority, and silence",
      false,
      {"stream", "lost", "TS errors", "second priority", "longest silence", "silent at the end",
       "bad seconds", "frame rate", "rate error, ppm", "gap error p99", "jitter max", "DF max",
       "duplicates", "reordered", "bad checksums", "frames"},
      {}};
  for (const std::size_t number : order.first(std::min(order.size(), kMaxRows))) {
    table.rows.push_back(StreamRow(summary.streams[number]));
  }
  fmt::format_to(out, "<h2>Streams</h2>\n{}", TableHtml(table));
  if (order.size() > kMaxRows) {
    fmt::format_to(out, "<p>and {} more</p>\n", FormatCount(order.size() - kMaxRows));
  }
}

void WriteEvents(Out out, const ReportSource& source) {
  const EventLog& log = source.measurement.Events();
  const std::vector<Event> kept = log.Kept();
  if (kept.empty()) {
    return;
  }
  const std::size_t shown = std::min(kept.size(), kMaxEvents);
  HtmlTable table{
      fmt::format("{}, {} listed", FormatCount(log.Count(), "event"), FormatCount(shown)),
      true,
      {"time", "event", "PID", "stream"},
      {}};
  for (const Event& event : std::span(kept).first(shown)) {
    const bool of_stream = event.stream < source.summary.streams.size();
    table.rows.push_back(
        {{ClockText(event.time_ns)},
         {EventText(event)},
         {event.pid == Event::kNoPid ? kNoValue : fmt::format("{}", event.pid)},
         {of_stream ? StreamName(source.summary.streams[event.stream]) : kNoValue}});
  }
  fmt::format_to(out, "<h2>Events</h2>\n{}", TableHtml(table));
}

void WriteStreams(Out out, const ReportSource& source) {
  const Measurement& measurement = source.measurement;
  const std::vector<std::size_t> order = WorstFirst(source.summary.streams);
  if (order.size() != 1) {
    fmt::format_to(out, "<h2>All streams together</h2>\n<div class=\"charts\">\n");
    for (const Chart& chart : TotalCharts(measurement)) {
      fmt::format_to(out, "{}", ChartHtml(chart));
    }
    fmt::format_to(out, "</div>\n");
  }
  WriteStreamTable(out, source.summary, order);
  const std::size_t twins = std::min(source.summary.twins.size(), kMaxSections);
  for (std::size_t number = 0; number < twins; ++number) {
    fmt::format_to(out, "{}", TwinSectionHtml(source.summary, measurement, number));
  }
  const std::size_t shown = std::min(order.size(), kMaxSections);
  if (shown < order.size()) {
    fmt::format_to(out, "<p>The worst {} of {} streams follow.</p>\n", shown,
                   FormatCount(order.size()));
  }
  for (const std::size_t number : std::span(order).first(shown)) {
    fmt::format_to(out, "{}", StreamSectionHtml(source.summary, measurement, number));
  }
}

void WriteSettings(Out out, const ReportSource& source) {
  HtmlTable table{"Options of this measurement", true, {}, {}};
  for (const auto& [name, value] : source.settings) {
    table.rows.push_back({{name}, {value}});
  }
  fmt::format_to(out, "<h2>Settings</h2>\n{}", TableHtml(table));
}

void WriteBanners(Out out, const ReportSource& source) {
  const CaptureSummary& capture = source.summary.capture;
  const auto banner = [&](bool good, const std::string& text) {
    fmt::format_to(out, "<p class=\"banner {}\">{}</p>\n", good ? "met" : "not", EscapeHtml(text));
  };
  if (!source.verdicts.empty()) {
    const bool met = AllMet(source.verdicts);
    banner(met, met ? "All limits are met." : "Not all limits are met.");
  }
  if (capture.IsSpoiled()) {
    banner(false,
           "The capture itself dropped frames: on the wire, loss, gaps and errors may have been "
           "fewer.");
  }
  if (!capture.broken_off.empty()) {
    banner(false, "The capture broke off: " + capture.broken_off);
  }
}

void WriteHeader(Out out, const ReportSource& source) {
  const CaptureSummary& capture = source.summary.capture;
  const Measurement& measurement = source.measurement;
  const std::string& version = source.summary.run.version;
  const std::string when = capture.frames == 0
                               ? std::string("Nothing was captured")
                               : fmt::format("Captured {} to {}", DateText(measurement.StartNs()),
                                             DateText(measurement.EndNs()));
  fmt::format_to(out,
                 "{6}{0}</title><style>{1}</style></head>\n<body><main>\n"
                 "<header><h1>Measurement of {0}</h1><p>{2}{3}. Report made {4}{5}.</p></header>\n",
                 EscapeHtml(capture.source), kReportStyle, EscapeHtml(when),
                 capture.live ? "" : ", read from a file", EscapeHtml(source.date),
                 version.empty() ? "" : " by ipplay " + version, kReportStart);
  WriteBanners(out, source);
}

}  // namespace

std::string ReportHtml(const ReportSource& source) {
  std::string html;
  const Out out(html);
  WriteHeader(out, source);
  WriteTiles(out, source.summary);
  const std::string oddities = OdditiesText(source.summary.capture, source.summary.total);
  if (!oddities.empty()) {
    fmt::format_to(out, "<p class=\"also\">{}</p>\n", EscapeHtml(oddities));
  }
  WriteVerdicts(out, source.verdicts);
  WriteStreams(out, source);
  WriteEvents(out, source);
  WriteSettings(out, source);
  fmt::format_to(out,
                 "<footer>Every figure is defined in docs/measuring.md. Percentiles are exact to "
                 "0.8 %.</footer>\n</main></body></html>\n");
  return html;
}

}  // namespace ipplay::measure
