// SPDX-License-Identifier: MIT
#include "host/measure/results/table_view.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "host/base/text.h"
#include "host/base/units.h"
#include "host/measure/results/twin_lines.h"

namespace ipplay::measure {
namespace {

using Out = std::back_insert_iterator<std::string>;

// The lines of a stream's figures: an indent, a name, a blank, and the text.
constexpr std::size_t kIndent = 2;
constexpr std::size_t kNameWidth = 10;

// Figures that lost frames make worse than they were carry this mark.
const char* Mark(bool spoiled) {
  return spoiled ? "*" : "";
}

std::string Label(const StreamSummary& stream) {
  std::string label = stream.destination;
  if (!stream.vlan.empty()) {
    label += fmt::format(" vlan {}", stream.vlan);
  }
  if (stream.ssrc) {
    label += fmt::format(" {:08x}", *stream.ssrc);
  }
  return label;
}

// Columns from left to right; those that a narrow terminal has no room for go from the right.
struct Column {
  const char* title;
  std::size_t width;
  bool spoiled_by_drops;
  std::string (*text)(const StreamSummary& stream);
};

std::string Percentile99(const Distribution& distribution) {
  return distribution.count > 0 ? FormatNanoseconds(distribution.p99) : std::string("-");
}

std::string OptionalCount(const std::optional<std::uint64_t>& count) {
  return count ? FormatCount(*count) : "-";
}

constexpr Column kColumns[] = {
    {"frames", 13, false, [](const StreamSummary& s) { return FormatCount(s.rate.frames); }},
    {"frame rate", 14, false,
     [](const StreamSummary& s) { return FormatBitRate(s.rate.frame_bit_rate); }},
    {"lost", 9, true, [](const StreamSummary& s) { return OptionalCount(s.Lost()); }},
    {"gap p99", 9, true, [](const StreamSummary& s) { return Percentile99(s.spacing.gap); }},
    {"gap max", 9, true,
     [](const StreamSummary& s) { return FormatNanoseconds(s.spacing.gap.max); }},
    {"error p99", 9, true,
     [](const StreamSummary& s) { return Percentile99(s.spacing.gap_error); }},
    {"DF max", 9, true,
     [](const StreamSummary& s) {
       return s.mdi.delay_factor ? FormatNanoseconds(s.mdi.delay_factor->max) : std::string("-");
     }},
    {"TS err", 8, true,
     [](const StreamSummary& s) { return s.ts ? FormatCount(s.ts->errors) : std::string("-"); }},
    {"bad csum", 8, false,
     [](const StreamSummary& s) { return FormatCount(s.checksums.bad_ip + s.checksums.bad_udp); }},
    {"reord", 8, false,
     [](const StreamSummary& s) {
       return s.rtp ? FormatCount(s.rtp->reordered) : std::string("-");
     }},
    {"dup", 8, false,
     [](const StreamSummary& s) {
       return s.rtp ? FormatCount(s.rtp->duplicates) : std::string("-");
     }},
};

void WriteStreams(Out out, std::span<const StreamSummary> streams, bool spoiled,
                  std::size_t columns) {
  std::size_t label_width = 6;
  for (const StreamSummary& stream : streams) {
    label_width = std::max(label_width, Label(stream).size());
  }
  std::size_t width = label_width;
  std::size_t shown = 0;
  for (const Column& column : kColumns) {
    width += column.width + 1;
    if (width > columns) {
      break;
    }
    ++shown;
  }
  const auto used = std::span(kColumns).first(shown);
  fmt::format_to(out, "{:<{}}", "stream", label_width);
  for (const Column& column : used) {
    fmt::format_to(out, " {:>{}}", column.title, column.width);
  }
  *out = '\n';
  for (const StreamSummary& stream : streams) {
    fmt::format_to(out, "{:<{}}", Label(stream), label_width);
    for (const Column& column : used) {
      const std::string text = column.text(stream) + Mark(spoiled && column.spoiled_by_drops);
      fmt::format_to(out, " {:>{}}", text, column.width);
    }
    *out = '\n';
  }
}

// As many beside each other as there is room for.
void WriteItems(Out out, std::span<const std::string> items, std::size_t columns) {
  std::size_t width = 0;
  for (const std::string& item : items) {
    const bool fits = width == 0 || width + 2 + item.size() <= columns;
    fmt::format_to(out, "{}{}", width == 0 ? "" : fits ? "  " : "\n", item);
    width = fits && width > 0 ? width + 2 + item.size() : item.size();
  }
  *out = '\n';
}

// Of each kind of stream in its own unit.
std::string LostText(const CaptureSummary& capture, const TotalSummary& total) {
  const char* mark = Mark(capture.IsSpoiled());
  if (total.ts_expected == 0) {
    return fmt::format("lost {}{}", FormatCount(total.lost), mark);
  }
  const std::string packets =
      fmt::format("{}{} transport packet{}", FormatCount(total.lost_ts_packets), mark,
                  total.lost_ts_packets == 1 ? "" : "s");
  return total.rtp_expected == 0
             ? "lost " + packets
             : fmt::format("lost {}{} RTP and {}", FormatCount(total.lost), mark, packets);
}

void WriteTotals(Out out, const CaptureSummary& capture, const TotalSummary& total,
                 std::size_t columns) {
  const std::string about[] = {
      QuotedLine(capture.source),
      total.rate.seconds < 1 ? FormatNanoseconds(total.rate.seconds * 1e9)
                             : fmt::format("{:.1f} s", total.rate.seconds),
      fmt::format("{} {}", total.streams, total.streams == 1 ? "stream" : "streams"),
      FormatCount(total.rate.frames) + " frames",
      FormatBitRate(total.rate.frame_bit_rate),
      FormatCount(static_cast<std::uint64_t>(std::llround(total.rate.frames_per_second))) +
          " frames/s",
  };
  WriteItems(out, about, columns);
  std::vector<std::string> faults = {
      LostText(capture, total),
      "duplicates " + FormatCount(total.duplicates),
      "reordered " + FormatCount(total.reordered),
      fmt::format("bad checksums: IP {}, UDP {}", FormatCount(total.checksums.bad_ip),
                  FormatCount(total.checksums.bad_udp)),
  };
  if (capture.live) {
    faults.push_back("dropped by the capture " +
                     FormatCount(capture.drops.by_kernel + capture.drops.by_adapter));
  }
  WriteItems(out, faults, columns);
}

void WriteGivenUp(Out out, const TotalSummary& total) {
  const struct {
    std::uint64_t count;
    std::string text;
  } parts[] = {
      {total.given_up.plots, "plots of " + FormatCount(total.given_up.plots, "stream")},
      {total.given_up.details, fmt::format("the transport packets of {} ({})",
                                           FormatCount(total.given_up.details, "stream"),
                                           FormatCount(total.frames_without_detail, "frame"))},
      {total.given_up.streams, "the rest of " + FormatCount(total.given_up.streams, "stream")},
      {total.given_up.frames, FormatCount(total.given_up.frames, "whole frame")}};
  std::string what;
  for (const auto& [count, text] : parts) {
    if (count > 0) {
      what += (what.empty() ? "" : ", ") + text;
    }
  }
  if (!what.empty()) {
    fmt::format_to(out, "left out for memory (--memory {}M): {}\n", total.memory_bytes >> 20, what);
  }
}

// What was captured besides UDP frames, and what else is out of the ordinary.
void WriteOddities(Out out, const CaptureSummary& capture, const TotalSummary& total) {
  const struct {
    const char* name;
    std::uint64_t count;
  } oddities[] = {
      {"not IP", capture.classes[static_cast<std::size_t>(FrameClass::kNotIp)]},
      {"not UDP", capture.classes[static_cast<std::size_t>(FrameClass::kNotUdp)]},
      {"fragments", capture.classes[static_cast<std::size_t>(FrameClass::kFragment)]},
      {"truncated", capture.classes[static_cast<std::size_t>(FrameClass::kTruncated)]},
      {"impossible IP header", capture.classes[static_cast<std::size_t>(FrameClass::kBadIpHeader)]},
      {"impossible UDP length",
       capture.classes[static_cast<std::size_t>(FrameClass::kBadUdpLength)]},
      {"without RTP header", total.malformed_rtp},
      {"captured in part", total.cut_frames},
      {"datagrams repeated without RTP", total.repeated_datagrams},
      {"RTCP", total.rtcp_packets},
      {"beyond the limits of streams and memory", total.untracked_frames},
      {"UDP checksum absent", total.checksums.absent_udp},
      {"UDP checksum not checked", total.checksums.unchecked_udp},
      {"SSRC changes", total.ssrc_changes},
      {"payload type changes", total.payload_type_changes},
      {"time stamps that go back", total.spacing.time_reversals},
      {"joined by the kernel", capture.joined_frames},
      {"steps of the capture's clock", capture.clock_steps},
  };
  const char* separator = "also: ";
  for (const auto& [name, count] : oddities) {
    if (count == 0) {
      continue;
    }
    fmt::format_to(out, "{}{} {}", separator, FormatCount(count), name);
    separator = ", ";
  }
  if (separator[0] == ',') {
    *out = '\n';
  }
  WriteGivenUp(out, total);
  if (!capture.broken_off.empty()) {
    fmt::format_to(out, "the capture broke off: {}\n", QuotedLine(capture.broken_off));
  }
  if (capture.IsSpoiled()) {
    fmt::format_to(out, "* the capture dropped frames: on the wire this may have been better\n");
  }
}

void WriteMdi(Out out, const MdiFigures& mdi) {
  const std::string delay_factor =
      mdi.delay_factor ? fmt::format("mean {}, max {}", FormatNanoseconds(mdi.delay_factor->mean),
                                     FormatNanoseconds(mdi.delay_factor->max))
                       : "not measurable";
  const std::string loss_rate = mdi.loss_rate
                                    ? fmt::format("mean {:.3g}, max {:.0f} packets in a second",
                                                  mdi.loss_rate->mean, mdi.loss_rate->max)
                                    : "not measurable";
  fmt::format_to(out, "  {:<10} delay factor {}; media loss rate {}\n", "MDI", delay_factor,
                 loss_rate);
}

void WriteSpacing(Out out, const StreamSummary& stream) {
  const auto row = [&](const char* name, const Distribution& d) {
    if (d.count == 0) {
      fmt::format_to(out, "  {:<10} not measurable\n", name);
      return;
    }
    fmt::format_to(out, "  {:<10} min {}, mean {}, p50 {}, p90 {}, p99 {}, p99.9 {}, max {}\n",
                   name, FormatNanoseconds(d.min), FormatNanoseconds(d.mean),
                   FormatNanoseconds(d.p50), FormatNanoseconds(d.p90), FormatNanoseconds(d.p99),
                   FormatNanoseconds(d.p999), FormatNanoseconds(d.max));
  };
  const SpacingFigures& spacing = stream.spacing;
  row("gap", spacing.gap);
  row("gap error", spacing.gap_error);
  const double gaps = static_cast<double>(std::max<std::uint64_t>(1, spacing.gap.count));
  if (spacing.grid) {
    fmt::format_to(out, "  {:<10} {} early to {} late, {} peak to peak\n", "grid",
                   FormatNanoseconds(-spacing.grid->low), FormatNanoseconds(spacing.grid->high),
                   FormatNanoseconds(spacing.grid->Spread()));
  }
  fmt::format_to(out, "  {:<10} {:.3g} % of the frames, {}, longest {}\n", "clumped",
                 static_cast<double>(spacing.clumped_frames) / gaps * 100,
                 FormatCount(spacing.burst_length.count, "burst"),
                 FormatCount(static_cast<std::uint64_t>(spacing.burst_length.max), "frame"));
}

void WriteRtp(Out out, const RtpFigures& rtp) {
  fmt::format_to(out,
                 "  {:<10} payload type {}, lost {} in {} periods (longest {}), duplicates {}, "
                 "reordered {} (at most {} behind, {} put in place), restarts {}, strays {}\n",
                 "RTP", rtp.payload_type, FormatCount(rtp.lost), FormatCount(rtp.loss_periods),
                 FormatCount(rtp.longest_loss), FormatCount(rtp.duplicates),
                 FormatCount(rtp.reordered),
                 FormatCount(static_cast<std::uint64_t>(rtp.reorder_distance.max)),
                 FormatCount(rtp.repaired), FormatCount(rtp.restarts), FormatCount(rtp.strays));
  if (!rtp.has_jitter) {
    fmt::format_to(out, "  {:<10} not defined: the time stamps stand still\n", "jitter");
    return;
  }
  fmt::format_to(out, "  {:<10} last {}, mean {}, max {}\n", "jitter",
                 FormatNanoseconds(rtp.jitter), FormatNanoseconds(rtp.jitter_mean),
                 FormatNanoseconds(rtp.jitter_max));
}

void WriteFec(Out out, const FecCounters& fec) {
  std::string matrix;
  if (fec.column_datagrams > 0) {
    matrix = fmt::format("{} x {}, {} of columns", fec.columns, fec.rows,
                         FormatCount(fec.column_datagrams));
  }
  if (fec.row_datagrams > 0) {
    matrix += fmt::format("{}{} of rows of {}", matrix.empty() ? "" : ", ",
                          FormatCount(fec.row_datagrams), fec.row_length);
  }
  fmt::format_to(out, "  {:<10} {}, parity right {}, wrong {}\n", "FEC", matrix,
                 FormatCount(fec.parity_right), FormatCount(fec.parity_wrong));
  fmt::format_to(out, "  {:<10} lost {}, repaired {}, stay lost {}", "", FormatCount(fec.lost),
                 FormatCount(fec.repaired), FormatCount(fec.Unrepaired()));
  if (fec.Unrepaired() > 0) {
    fmt::format_to(out, ": {} with too many lost beside them, {} without FEC that came",
                   FormatCount(fec.too_many), FormatCount(fec.unprotected));
  }
  *out = '\n';
}

void WritePcr(Out out, const PidSummary& pid) {
  const PcrFigures& pcr = *pid.pcr;
  fmt::format_to(out, "  {:<10} PID {}: {} PCRs", "PCR", pid.pid, FormatCount(pcr.count));
  if (pcr.bit_rate) {
    fmt::format_to(out, ", {}", FormatBitRate(*pcr.bit_rate));
  }
  if (pcr.interval.count > 0) {
    fmt::format_to(out, ", interval mean {}, max {}", FormatNanoseconds(pcr.interval.MeanNs()),
                   FormatNanoseconds(static_cast<double>(pcr.interval.max_ns)));
  }
  const auto time = [](const std::optional<double>& ns) {
    return ns ? FormatNanoseconds(*ns) + " peak to peak" : std::string("not measured");
  };
  fmt::format_to(out, ", accuracy {}, arrival {}", time(pcr.accuracy_spread),
                 time(pcr.arrival_spread));
  if (pcr.frequency_offset_ppm) {
    fmt::format_to(out, ", {:+.2f} ppm", *pcr.frequency_offset_ppm);
  }
  fmt::format_to(out, ", repetition errors {}, discontinuities {}\n", pcr.repetition_errors,
                 pcr.discontinuity_errors);
}

// The indicators of one priority.
void WriteIndicators(Out out, const TsFigures& ts, int priority) {
  fmt::format_to(out, "  {:<10} priority {}:", "TR 101 290", priority);
  const char* separator = " ";
  for (const IndicatorSummary& indicator : ts.indicators) {
    if (indicator.info->priority != priority) {
      continue;
    }
    std::string name = indicator.info->name;
    std::ranges::replace(name, '_', ' ');
    fmt::format_to(out, "{}{} {}", separator, name,
                   indicator.state.measured ? FormatCount(indicator.state.count) : "-");
    separator = ", ";
  }
  *out = '\n';
}

void WriteService(Out out, const ServiceSummary& service) {
  fmt::format_to(out, "  {:<10} {}", "service", service.number);
  if (!service.name.empty()) {
    fmt::format_to(out, " \"{}\"", service.name);
  }
  if (!service.provider.empty()) {
    fmt::format_to(out, " of \"{}\"", service.provider);
  }
  if (service.bit_rate) {
    fmt::format_to(out, ", {}", FormatBitRate(*service.bit_rate));
  }
  if (!service.tables.has_pmt) {
    fmt::format_to(out, ", no PMT");
  }
  for (const Component& component : service.tables.components) {
    fmt::format_to(
        out, ", PID {} {}", component.pid,
        *component.coding != 0 ? component.coding : fmt::format("type {}", component.stream_type));
    if (!component.language.empty()) {
      fmt::format_to(out, " ({})", component.language);
    }
  }
  *out = '\n';
}

void WriteTs(Out out, const TsFigures& ts) {
  const TsCounters& counters = ts.counters;
  const double packets = static_cast<double>(std::max<std::uint64_t>(1, counters.packets));
  fmt::format_to(out, "  {:<10} {} of {} bytes, {:.3g} % null, {}, missing {}\n", "TS",
                 FormatCount(counters.packets, "packet"), ts.packet_length,
                 static_cast<double>(counters.null_packets) / packets * 100,
                 FormatCount(ts.pids.size(), "PID"), FormatCount(ts.Missing()));
  for (int priority = 1; priority <= 3; ++priority) {
    WriteIndicators(out, ts, priority);
  }
  for (const PidSummary& pid : ts.pids) {
    if (pid.pcr) {
      WritePcr(out, pid);
    }
  }
  for (const ServiceSummary& service : ts.services) {
    WriteService(out, service);
  }
  if (ts.left_out > 0) {
    fmt::format_to(out, "  {:<10} {} tables and services more than are kept\n", "left out",
                   FormatCount(ts.left_out));
  }
}

std::string Hex(std::span<const std::uint8_t> bytes) {
  return fmt::format("{:02x}", fmt::join(bytes, " "));
}

void WriteCompare(Out out, const CompareFigures& compare) {
  fmt::format_to(out, "  {:<10} {} equal, {} different, {} not placed, {} skipped\n", "content",
                 FormatCount(compare.equal, "datagram"), FormatCount(compare.different),
                 FormatCount(compare.unplaced), FormatBytes(compare.bytes_skipped));
  if (const auto& difference = compare.first_difference) {
    fmt::format_to(out,
                   "  {:<10} datagram {} at offset {} (file offset {})\n"
                   "  {:<10} expected {}\n  {:<10} received {}\n",
                   "difference", difference->datagram, difference->datagram_offset,
                   difference->file_offset, "", Hex(difference->expected), "",
                   Hex(difference->received));
  }
}

void WriteFigures(Out out, const StreamSummary& stream) {
  const RateFigures& rate = stream.rate;
  fmt::format_to(out, "  {:<10} {:.2f} frames/s, {} in frames, {} in payload", "rate",
                 rate.frames_per_second, FormatBitRate(rate.frame_bit_rate),
                 FormatBitRate(rate.payload_bit_rate));
  if (rate.error_ppm) {
    fmt::format_to(out, ", {:+.2f} ppm off the expected rate", *rate.error_ppm);
  }
  *out = '\n';
  fmt::format_to(out, "  {:<10} {} before the first frame, {} behind the last, longest {}\n",
                 "silence", FormatNanoseconds(stream.silent_at_start),
                 FormatNanoseconds(stream.silent_at_end),
                 FormatNanoseconds(stream.longest_silence));
  WriteSpacing(out, stream);
  if (stream.rtp) {
    WriteRtp(out, *stream.rtp);
  }
  if (stream.fec) {
    WriteFec(out, *stream.fec);
  }
  WriteMdi(out, stream.mdi);
  if (stream.ts) {
    WriteTs(out, *stream.ts);
  }
  if (stream.compare) {
    WriteCompare(out, *stream.compare);
  }
}

void WriteDetails(Out out, const StreamSummary& stream) {
  fmt::format_to(out, "\n{} from {}{}{}\n", Label(stream), stream.source,
                 stream.protects               ? ", FEC"
                 : stream.is_fec_without_media ? ", FEC of a stream that did not come"
                                               : "",
                 stream.rtp ? "" : ", no RTP (lost counts transport packets)");
  WriteFigures(out, stream);
}

void WriteTwins(Out out, const Summary& summary, const TwinSummary& twins) {
  fmt::format_to(out, "\ntwins {} and {}\n", Label(summary.streams[twins.streams[0]]),
                 Label(summary.streams[twins.streams[1]]));
  for (const auto& [name, text] : TwinLines(twins)) {
    fmt::format_to(out, "  {:<10} {}\n", name, text);
  }
}

void WriteVerdicts(Out out, std::span<const Verdict> verdicts) {
  if (verdicts.empty()) {
    return;
  }
  *out = '\n';
  for (const Verdict& verdict : verdicts) {
    fmt::format_to(out, "{:<6} {:<22} limit {:<20} measured {}\n", verdict.met ? "met" : "NOT MET",
                   verdict.name, verdict.limit, verdict.measured);
  }
}

}  // namespace

std::string LiveTable(const CaptureSummary& capture, const TotalSummary& total,
                      std::span<const StreamSummary> streams, std::size_t columns) {
  std::string text;
  const Out out(text);
  WriteTotals(out, capture, total, columns);
  WriteStreams(out, streams, capture.IsSpoiled(), columns);
  if (streams.size() < total.streams) {
    fmt::format_to(out, "and {} more\n", FormatCount(total.streams - streams.size()));
  }
  return text;
}

std::string OdditiesText(const CaptureSummary& capture, const TotalSummary& total) {
  std::string text;
  WriteOddities(Out(text), capture, total);
  return text;
}

std::vector<FigureLine> FigureLines(const StreamSummary& stream) {
  std::string text;
  WriteFigures(Out(text), stream);
  std::vector<FigureLine> lines;
  std::istringstream stripped(text);
  for (std::string line; std::getline(stripped, line);) {
    std::string name = line.substr(kIndent, kNameWidth);
    name.erase(name.find_last_not_of(' ') + 1);
    lines.push_back({std::move(name), line.substr(kIndent + kNameWidth + 1)});
  }
  return lines;
}

std::string ResultTable(const Summary& summary, std::span<const Verdict> verdicts,
                        const ResultTableSettings& settings) {
  const std::span streams(summary.streams);
  std::string text =
      LiveTable(summary.capture, summary.total,
                streams.first(std::min(streams.size(), settings.max_streams)), settings.columns);
  const Out out(text);
  WriteOddities(out, summary.capture, summary.total);
  for (const StreamSummary& stream : streams.first(std::min(streams.size(), settings.detailed))) {
    WriteDetails(out, stream);
  }
  for (const TwinSummary& twins :
       std::span(summary.twins).first(std::min(summary.twins.size(), settings.detailed))) {
    WriteTwins(out, summary, twins);
  }
  WriteVerdicts(out, verdicts);
  return text;
}

}  // namespace ipplay::measure
