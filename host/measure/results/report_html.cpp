// SPDX-License-Identifier: MIT
#include "host/measure/results/report_html.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <iterator>

#include "host/base/units.h"
#include "host/measure/results/chart.h"
#include "host/measure/results/report_charts.h"
#include "host/measure/results/report_style.h"

namespace ipplay::measure {
namespace {

using Out = std::back_insert_iterator<std::string>;

// A page with ten thousand rows helps nobody; the JSON text has them all.
constexpr std::size_t kMaxRows = 200;

std::string Time(double ns) {
  return FormatDuration(std::chrono::nanoseconds(std::llround(ns)));
}

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
    counted(total.lost, "lost");
  }
  if (total.ts_expected > 0) {
    counted(total.lost_ts_packets, "transport packets lost");
  }
  counted(total.duplicates, "duplicates");
  counted(total.reordered, "reordered");
  counted(total.checksums.bad_ip, "wrong IPv4 header checksums");
  counted(total.checksums.bad_udp, "wrong UDP checksums");
  counted(total.ts_errors, "transport stream errors");
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
  fmt::format_to(out,
                 "<h2>Verdicts</h2>\n<div class=\"scroll\"><table class=\"left\"><tr><th></th>"
                 "<th>requirement</th><th>limit</th><th>measured</th></tr>\n");
  for (const Verdict& v : verdicts) {
    fmt::format_to(
        out, "<tr><td class=\"{}\">{}</td><td><code>{}</code></td><td>{}</td><td>{}</td></tr>\n",
        v.met ? "met" : "not", v.met ? "met" : "not met", EscapeHtml(v.name), EscapeHtml(v.limit),
        EscapeHtml(v.measured));
  }
  fmt::format_to(out, "</table></div>\n");
}

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

void WriteStreamRow(Out out, const StreamSummary& s) {
  const auto cell = [&](const std::string& text) { fmt::format_to(out, "<td>{}</td>", text); };
  const auto count = [&](std::optional<std::uint64_t> value) {
    cell(value ? FormatCount(*value) : std::string("–"));
  };
  using Count = std::optional<std::uint64_t>;
  fmt::format_to(out, "<tr><td>{}</td>", StreamName(s));
  count(s.rate.frames);
  cell(FormatBitRate(s.rate.frame_bit_rate));
  cell(s.rate.error_ppm ? fmt::format("{:+.1f} ppm", *s.rate.error_ppm) : std::string("–"));
  cell(Time(s.spacing.gap.p50));
  cell(Time(s.spacing.gap.p99));
  cell(Time(s.spacing.gap.max));
  cell(Time(s.spacing.gap_error.p99));
  count(s.Lost());
  count(s.rtp ? Count(s.rtp->duplicates) : Count());
  count(s.rtp ? Count(s.rtp->reordered) : Count());
  cell(s.rtp ? Time(s.rtp->jitter_max) : std::string("–"));
  cell(s.mdi.intervals > 0 ? Time(s.mdi.delay_factor_max) : std::string("–"));
  count(s.checksums.bad_ip);
  count(s.checksums.bad_udp);
  count(s.ts ? Count(s.ts->errors) : Count());
  fmt::format_to(out, "</tr>\n");
}

void WriteStreamTable(Out out, const Summary& summary) {
  fmt::format_to(out, "<h2>Streams</h2>\n<div class=\"scroll\"><table class=\"wide\"><tr>");
  for (const char* title : {"stream", "frames", "frame rate", "rate error", "gap p50", "gap p99",
                            "gap max", "gap error p99", "lost", "duplicates", "reordered",
                            "jitter max", "DF max", "bad IP", "bad UDP", "TS errors"}) {
    fmt::format_to(out, "<th>{}</th>", title);
  }
  fmt::format_to(out, "</tr>\n");
  const std::size_t rows = std::min(summary.streams.size(), kMaxRows);
  for (std::size_t i = 0; i < rows; ++i) {
    WriteStreamRow(out, summary.streams[i]);
  }
  fmt::format_to(out, "</table></div>\n");
  if (rows < summary.streams.size()) {
    fmt::format_to(out, "<p>and {} more</p>\n", FormatCount(summary.streams.size() - rows));
  }
}

void WritePids(Out out, const TsFigures& ts) {
  fmt::format_to(out,
                 "<h2>PIDs</h2>\n<div class=\"scroll\"><table><tr><th>PID</th><th>packets</th>"
                 "<th>bit rate</th><th>continuity errors</th><th>PCR interval max</th>"
                 "<th>PCR accuracy</th><th>PCR arrival</th><th>PCR frequency offset</th></tr>\n");
  const auto time = [](const std::optional<double>& ns) { return ns ? Time(*ns) : "–"; };
  for (const PidSummary& pid : ts.pids) {
    fmt::format_to(out, "<tr><td>{0} (0x{0:04x})</td><td>{1}</td><td>{2}</td><td>{3}</td>", pid.pid,
                   FormatCount(pid.packets), pid.bit_rate ? FormatBitRate(*pid.bit_rate) : "–",
                   FormatCount(pid.continuity_errors));
    const PcrFigures pcr = pid.pcr.value_or(PcrFigures());
    const auto& offset = pcr.frequency_offset_ppm;
    fmt::format_to(out, "<td>{}</td><td>{}</td><td>{}</td><td>{}</td></tr>\n",
                   pcr.interval.count > 0 ? Time(static_cast<double>(pcr.interval.max_ns)) : "–",
                   time(pcr.accuracy_spread), time(pcr.arrival_spread),
                   offset ? fmt::format("{:+.2f} ppm", *offset) : "–");
  }
  fmt::format_to(out, "</table></div>\n");
}

void WriteCharts(Out out, const std::vector<Chart>& charts) {
  fmt::format_to(out, "<div class=\"charts\">\n");
  for (const Chart& chart : charts) {
    fmt::format_to(out, "{}", ChartHtml(chart));
  }
  fmt::format_to(out, "</div>\n");
}

void WritePlottedStream(Out out, const StreamSummary& summary, const Stream& stream, bool open) {
  fmt::format_to(out, "<details{}><summary><h2>{}</h2></summary>\n", open ? " open" : "",
                 StreamName(summary));
  WriteCharts(out, StreamCharts(stream));
  if (summary.ts) {
    WritePids(out, *summary.ts);
  }
  fmt::format_to(out, "</details>\n");
}

void WriteSettings(Out out, const ReportSource& source) {
  fmt::format_to(out, "<h2>Settings</h2>\n<div class=\"scroll\"><table class=\"left facts\">\n");
  for (const auto& [name, value] : source.settings) {
    fmt::format_to(out, "<tr><td><code>{}</code></td><td>{}</td></tr>\n", EscapeHtml(name),
                   EscapeHtml(value));
  }
  fmt::format_to(out, "</table></div>\n");
}

void WriteHeader(Out out, const ReportSource& source) {
  const CaptureSummary& capture = source.summary.capture;
  fmt::format_to(out,
                 "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                 "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
                 "<title>Measurement of {0}</title><style>{1}</style></head>\n<body><main>\n"
                 "<header><h1>Measurement of {0}</h1><p>{2}{3}</p></header>\n",
                 EscapeHtml(capture.source), kReportStyle, EscapeHtml(source.date),
                 capture.live ? "" : ", read from a file");
  if (!source.verdicts.empty()) {
    const bool met = AllMet(source.verdicts);
    fmt::format_to(out, "<p class=\"banner {}\">{}</p>\n", met ? "met" : "not",
                   met ? "All limits are met." : "Not all limits are met.");
  }
  if (capture.IsSpoiled()) {
    fmt::format_to(out,
                   "<p class=\"banner not\">The capture itself dropped frames: loss, gaps and "
                   "errors are worse here than on the wire.</p>\n");
  }
}

}  // namespace

std::string ReportHtml(const ReportSource& source) {
  std::string html;
  const Out out(html);
  WriteHeader(out, source);
  WriteTiles(out, source.summary);
  WriteVerdicts(out, source.verdicts);
  const auto& streams = source.measurement.Streams().Streams();
  if (streams.size() != 1) {
    fmt::format_to(out, "<h2>All streams together</h2>\n");
    WriteCharts(out, TotalCharts(source.measurement));
  }
  WriteStreamTable(out, source.summary);
  for (std::size_t i = 0; i < streams.size(); ++i) {
    if (streams[i]->History() == nullptr) {
      break;
    }
    WritePlottedStream(out, source.summary.streams[i], *streams[i], i == 0);
  }
  WriteSettings(out, source);
  fmt::format_to(out,
                 "<footer>Every figure is defined in docs/measuring.md. Percentiles are exact to "
                 "0.8 %.</footer>\n</main></body></html>\n");
  return html;
}

}  // namespace ipplay::measure
