// SPDX-License-Identifier: MIT
#include "host/measure/results/plain_words.h"

#include <fmt/format.h>

#include <cmath>
#include <iterator>

#include "host/base/units.h"

namespace ipplay::measure {
namespace {

using Out = std::back_insert_iterator<std::string>;

std::string Some(std::uint64_t count, const char* what) {
  return fmt::format("{} {}", count == 0 ? "none" : FormatCount(count), what);
}

void Line(Out out, const char* name, const std::string& text) {
  fmt::format_to(out, "  {:<11} {}\n", name, text);
}

void WriteDatagrams(Out out, const StreamSummary& stream) {
  std::string text = fmt::format("{} in {}", FormatCount(stream.rate.frames),
                                 FormatNanoseconds(stream.rate.seconds * 1e9));
  if (stream.rtp) {
    text += fmt::format(": {}, {}, {}", Some(stream.rtp->lost, "lost"),
                        Some(stream.rtp->reordered, "out of order"),
                        Some(stream.rtp->duplicates, "twice"));
  }
  Line(out, "datagrams", text);
  const std::uint64_t wrong = stream.checksums.bad_ip + stream.checksums.bad_udp;
  Line(out, "checksums",
       wrong == 0 ? std::string("all right") : fmt::format("{} wrong", FormatCount(wrong)));
}

void WriteRate(Out out, const RateFigures& rate) {
  std::string text =
      fmt::format("{} of Ethernet frames, {} of payload", FormatBitRate(rate.frame_bit_rate),
                  FormatBitRate(rate.payload_bit_rate));
  if (rate.error_ppm) {
    text += fmt::format("; {:.1f} ppm {} than ordered", std::abs(*rate.error_ppm),
                        *rate.error_ppm < 0 ? "slower" : "faster");
  }
  Line(out, "bit rate", text);
}

void WriteSpacing(Out out, const SpacingFigures& spacing) {
  if (spacing.gap.count == 0) {
    return;
  }
  Line(
      out, "spacing",
      fmt::format("one every {} on average; 99 of 100 within {} of the ideal gap, the worst {} off",
                  FormatNanoseconds(spacing.gap.mean), FormatNanoseconds(spacing.gap_error.p99),
                  FormatNanoseconds(spacing.gap_error.max)));
}

void WriteStreamContent(Out out, const StreamSummary& stream) {
  if (stream.mdi.delay_factor) {
    Line(out, "buffer",
         fmt::format("of {} is all that a receiver needs (RFC 4445 delay factor)",
                     FormatNanoseconds(stream.mdi.delay_factor->max)));
  }
  if (stream.ts) {
    Line(out, "stream",
         fmt::format("{}, {} (ETSI TR 101 290)",
                     FormatCount(stream.ts->counters.packets, "transport packet"),
                     stream.ts->errors == 0 ? std::string("no error")
                                            : FormatCount(stream.ts->errors, "error")));
    if (const PcrFigures* pcr = stream.ts->Reference(); pcr != nullptr && pcr->arrival_spread) {
      Line(out, "clock",
           fmt::format("{} PCRs, at most {} apart, came within {} of their time",
                       FormatCount(pcr->count),
                       FormatNanoseconds(static_cast<double>(pcr->interval.max_ns)),
                       FormatNanoseconds(*pcr->arrival_spread)));
    }
  }
  if (const auto& compare = stream.compare) {
    Line(out, "content",
         compare->different == 0 && compare->bytes_skipped == 0
             ? std::string("identical with the file, byte for byte")
             : "differing from the file: " + FormatCount(compare->different, "datagram"));
  }
}

}  // namespace

std::string PlainWords(const Summary& summary, std::span<const Verdict> verdicts) {
  std::string text;
  const Out out = std::back_inserter(text);
  if (summary.streams.empty()) {
    fmt::format_to(out, "Nothing arrived.\n");
  }
  for (const StreamSummary& stream : summary.streams) {
    fmt::format_to(out, "What arrived from {} at {}{}\n", stream.source, stream.destination,
                   stream.rtp ? " as RTP" : "");
    WriteDatagrams(out, stream);
    WriteRate(out, stream.rate);
    WriteSpacing(out, stream.spacing);
    WriteStreamContent(out, stream);
  }
  for (const Verdict& verdict : verdicts) {
    if (verdict.met) {
      continue;
    }
    fmt::format_to(out, "Not met: {} {}, measured: {}\n", verdict.name, verdict.limit,
                   verdict.measured);
  }
  return text;
}

}  // namespace ipplay::measure
