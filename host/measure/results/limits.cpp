// SPDX-License-Identifier: MIT
#include "host/measure/results/limits.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>

#include "host/base/units.h"

namespace ipplay::measure {
namespace {

using Value = std::optional<double>;

// The largest value over the streams that have one.
template <typename OfStream>
Value Worst(const Summary& summary, OfStream of_stream) {
  Value worst;
  for (const StreamSummary& stream : summary.streams) {
    const Value value = of_stream(stream);
    if (value && (!worst || *value > *worst)) {
      worst = value;
    }
  }
  return worst;
}

// The same; nothing where any of them has none.
template <typename OfStream>
Value WorstOfAll(const Summary& summary, OfStream of_stream) {
  const bool all = std::ranges::all_of(
      summary.streams, [&](const StreamSummary& s) { return of_stream(s).has_value(); });
  return all ? Worst(summary, of_stream) : Value();
}

// Over all clocks of all transport streams; nothing where any of them could not be measured, or has
// none.
template <typename OfPcr>
Value WorstPcr(const Summary& summary, OfPcr of_pcr) {
  Value worst;
  for (const StreamSummary& stream : summary.streams) {
    bool has_clock = false;
    for (const PidSummary& pid : stream.ts ? stream.ts->pids : std::vector<PidSummary>()) {
      if (!pid.pcr) {
        continue;
      }
      const Value value = of_pcr(*pid.pcr);
      if (!value) {
        return value;
      }
      worst = std::max(worst.value_or(*value), *value);
      has_clock = true;
    }
    if (stream.ts && !has_clock) {
      return std::nullopt;
    }
  }
  return worst;
}

Value IfAny(bool any, std::uint64_t count) {
  return any ? Value(static_cast<double>(count)) : Value();
}

Value IfTs(const Summary& summary, std::uint64_t count) {
  return IfAny(std::ranges::any_of(summary.streams, [](const auto& s) { return s.ts.has_value(); }),
               count);
}

// Third priority errors, if there is something that each transport stream can be judged by.
Value ThirdPriorityErrors(const Summary& summary) {
  const bool all = std::ranges::all_of(summary.streams, [](const StreamSummary& s) {
    return !s.ts || std::ranges::any_of(s.ts->indicators, [](const IndicatorSummary& indicator) {
      return indicator.info->priority == 3 && indicator.state.measured;
    });
  });
  return all ? IfTs(summary, summary.total.ts_third_priority_errors) : Value();
}

// Of RTP with constant time stamps there is none; only FEC may have those.
Value Jitter(const Summary& summary) {
  Value worst;
  for (const StreamSummary& s : summary.streams) {
    if (s.rtp && s.rtp->has_jitter) {
      worst = std::max(worst.value_or(0), s.rtp->jitter_max);
    } else if (s.rtp && s.ts) {
      return std::nullopt;
    }
  }
  return worst;
}

bool AnyRtp(const Summary& summary) {
  return std::ranges::any_of(summary.streams, [](const auto& s) { return s.rtp.has_value(); });
}

Value Lost(const Summary& summary) {
  const bool known = !summary.streams.empty() &&
                     std::ranges::all_of(summary.streams, &StreamSummary::KnowsAllLosses);
  // RTP packets and transport packets are no sum.
  return IfAny(known, std::max(summary.total.lost, summary.total.lost_ts_packets));
}

// RTP packets that are missing behind all correction.
Value Unrepaired(const Summary& summary) {
  std::uint64_t packets = 0;
  const auto add = [&](const std::optional<std::uint64_t>& unrepaired) {
    packets += unrepaired.value_or(0);
    return unrepaired.has_value();
  };
  std::vector<bool> has_twin(summary.streams.size());
  for (const TwinSummary& twins : summary.twins) {
    has_twin[twins.streams[0]] = has_twin[twins.streams[1]] = true;
    if (!add(twins.Unrepaired())) {
      return std::nullopt;
    }
  }
  for (std::size_t place = 0; place < summary.streams.size(); ++place) {
    const StreamSummary& stream = summary.streams[place];
    if (stream.rtp && !stream.protects && !has_twin[place] && !add(stream.Unrepaired())) {
      return std::nullopt;
    }
  }
  return IfAny(AnyRtp(summary), packets);
}

double Percent(std::uint64_t part, std::uint64_t all) {
  return all > 0 ? static_cast<double>(part) / static_cast<double>(all) * 100 : 0;
}

double LostPercent(const TotalSummary& total) {
  return std::max(Percent(total.lost, total.rtp_expected),
                  Percent(total.lost_ts_packets, total.ts_expected));
}

// Why a limit is not met whatever was measured: part of what it is about was not looked at.
std::string NotLookedAt(const Summary& summary, const LimitKind& kind) {
  switch (kind.looks_at) {
    case LooksAt::kChecksums:
      return summary.total.checksums.unchecked_udp == 0
                 ? ""
                 : fmt::format("{} not checked",
                               FormatCount(summary.total.checksums.unchecked_udp));
    case LooksAt::kPayload:
      if (summary.total.frames_without_detail > 0) {
        return FormatCount(summary.total.frames_without_detail, "frame") + " not looked into";
      }
      // What was overdue in the end was not looked for.
      if (const std::uint64_t streams = summary.total.given_up.details; streams > 0) {
        return FormatCount(streams, "stream") + " not looked into to the end";
      }
      if (summary.total.cut_frames > 0) {
        return FormatCount(summary.total.cut_frames, "frame") + " captured in part";
      }
      if (const auto others = std::ranges::count_if(
              summary.streams, [](const auto& s) { return !s.ts && !s.protects; });
          others > 0) {
        return FormatCount(static_cast<std::uint64_t>(others), "stream") +
               " without transport packets";
      }
      break;
    case LooksAt::kFrames:
      break;
  }
  return "";
}

Value RateError(const Summary& summary) {
  return WorstOfAll(summary, [](const StreamSummary& s) {
    return s.rate.error_ppm ? Value(std::abs(*s.rate.error_ppm)) : Value();
  });
}

constexpr LimitKind kKinds[] = {
    {"--max-p99", LimitUnit::kDuration, "99th percentile of |gap - ideal gap|",
     [](const Summary& m) {
       return WorstOfAll(m, [](const auto& s) {
         return s.spacing.gap_error.count > 0 ? Value(s.spacing.gap_error.p99) : Value();
       });
     },
     true},
    {"--max-gap", LimitUnit::kDuration,
     "longest gap between two frames of a stream, silence at both ends included",
     [](const Summary& m) {
       return Worst(m, [](const auto& s) { return Value(s.spacing.gap.max); });
     },
     true},
    {"--max-silence", LimitUnit::kDuration,
     "longest time without a frame of a stream, ends included",
     [](const Summary& m) {
       return Worst(m, [](const auto& s) { return Value(s.longest_silence); });
     },
     true},
    {"--max-peak-to-peak", LimitUnit::kDuration, "deviation from the ideal grid, peak to peak",
     [](const Summary& m) {
       return WorstOfAll(m, [](const auto& s) {
         return s.spacing.grid ? Value(s.spacing.grid->Spread()) : Value();
       });
     },
     true},
    {"--max-jitter", LimitUnit::kDuration, "largest RFC 3550 interarrival jitter", Jitter, true},
    {"--max-loss", LimitUnit::kCountOrPercent, "packets lost, or their share", Lost, true},
    {"--max-unrepaired", LimitUnit::kCount,
     "RTP packets lost that neither FEC nor a twin path makes good", Unrepaired, true},
    {"--max-reordered", LimitUnit::kCount, "RTP packets out of order",
     [](const Summary& m) { return IfAny(AnyRtp(m), m.total.reordered); }, false},
    {"--max-duplicates", LimitUnit::kCount, "RTP packets that came twice",
     [](const Summary& m) { return IfAny(AnyRtp(m), m.total.duplicates); }, false},
    {"--max-rate-error", LimitUnit::kPpm, "deviation from --expect-rate", RateError, true},
    {"--max-checksum-errors", LimitUnit::kCount, "wrong IPv4 header and UDP checksums",
     [](const Summary& m) {
       return IfAny(m.total.streams > 0, m.total.checksums.bad_ip + m.total.checksums.bad_udp);
     },
     false, LooksAt::kChecksums},
    {"--max-df", LimitUnit::kDuration, "delay factor of RFC 4445 in any second",
     [](const Summary& m) {
       return WorstOfAll(m, [](const auto& s) {
         return s.mdi.delay_factor && s.mdi.all_delay_factors ? Value(s.mdi.delay_factor->max)
                                                              : Value();
       });
     },
     true},
    {"--max-mlr", LimitUnit::kCount, "media loss rate of RFC 4445 in any second",
     [](const Summary& m) {
       return WorstOfAll(m, [](const auto& s) {
         return s.mdi.loss_rate && s.KnowsAllLosses() ? Value(s.mdi.loss_rate->max) : Value();
       });
     },
     true},
    {"--max-ts-errors", LimitUnit::kCount, "TR 101 290 first priority and transport errors",
     [](const Summary& m) { return IfTs(m, m.total.ts_errors); }, true, LooksAt::kPayload},
    {"--max-ts-errors-2", LimitUnit::kCount,
     "TR 101 290 second priority errors except PCR accuracy",
     [](const Summary& m) { return IfTs(m, m.total.ts_second_priority_errors); }, true,
     LooksAt::kPayload},
    {"--max-ts-errors-3", LimitUnit::kCount, "TR 101 290 third priority errors",
     ThirdPriorityErrors, true, LooksAt::kPayload},
    {"--max-pcr-accuracy", LimitUnit::kDuration, "PCRs against a constant bit rate, peak to peak",
     [](const Summary& m) {
       return WorstPcr(m, [](const auto& pcr) { return pcr.accuracy_spread; });
     },
     true, LooksAt::kPayload},
    {"--max-pcr-jitter", LimitUnit::kDuration, "PCRs against their arrival, peak to peak",
     [](const Summary& m) {
       return WorstPcr(m, [](const auto& pcr) { return pcr.arrival_spread; });
     },
     true, LooksAt::kPayload},
};

std::optional<double> ParseCount(const std::string& text) {
  std::uint64_t count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return static_cast<double>(count);
}

std::string Text(LimitUnit unit, double value) {
  switch (unit) {
    case LimitUnit::kDuration:
      return FormatNanoseconds(value);
    case LimitUnit::kPpm:
      return fmt::format("{:.2f} ppm", value);
    case LimitUnit::kCount:
    case LimitUnit::kCountOrPercent:
      break;
  }
  return FormatCount(static_cast<std::uint64_t>(value));
}

std::string PercentText(double percent) {
  return fmt::format("{:.4g} %", percent);
}

Verdict JudgeLimit(const Summary& summary, const Limit& limit) {
  Verdict verdict{limit.kind->option, {}, "not measurable", false};
  verdict.limit = limit.is_percent ? PercentText(limit.value) : Text(limit.kind->unit, limit.value);
  Value measured = limit.kind->measured(summary);
  if (!measured) {
    return verdict;
  }
  if (limit.is_percent) {
    measured = LostPercent(summary.total);
    verdict.measured = PercentText(*measured);
  } else {
    verdict.measured = Text(limit.kind->unit, *measured);
  }
  verdict.met = *measured <= limit.value;
  if (const std::string why = NotLookedAt(summary, *limit.kind); !why.empty()) {
    verdict.met = false;
    verdict.measured += fmt::format(" ({})", why);
  }
  if (!verdict.met && limit.kind->spoiled_by_drops && summary.capture.IsSpoiled()) {
    verdict.measured += " (spoiled: the capture dropped frames)";
  }
  return verdict;
}

}  // namespace

std::span<const LimitKind> LimitKinds() {
  return kKinds;
}

std::optional<Limit> ParseLimit(const LimitKind& kind, const std::string& text) {
  Limit limit{&kind, 0, false};
  std::optional<double> value;
  switch (kind.unit) {
    case LimitUnit::kDuration:
      if (const auto duration = ParseDuration(text)) {
        value = static_cast<double>(duration->count());
      }
      break;
    case LimitUnit::kPpm:
      value = ParsePpm(text);
      break;
    case LimitUnit::kCountOrPercent:
      value = ParsePercent(text);
      limit.is_percent = value.has_value();
      if (value && *value > 100) {
        return std::nullopt;
      }
      if (!value) {
        value = ParseCount(text);
      }
      break;
    case LimitUnit::kCount:
      value = ParseCount(text);
      break;
  }
  if (!value || *value < 0) {
    return std::nullopt;
  }
  limit.value = *value;
  return limit;
}

std::vector<Verdict> Judge(const Summary& summary, const Requirements& requirements) {
  std::vector<Verdict> verdicts;
  if (requirements.limits.empty() && !requirements.min_streams && !requirements.content_equal) {
    return verdicts;
  }
  const std::uint64_t min_streams = requirements.min_streams.value_or(1);
  verdicts.push_back({"--min-streams", FormatCount(min_streams), FormatCount(summary.total.streams),
                      summary.total.streams >= min_streams});
  if (summary.capture.live) {
    // The capture may have lost the very frames that a limit is about.
    const CaptureDrops& drops = summary.capture.drops;
    verdicts.push_back({"capture drops", "0", FormatCount(drops.by_kernel + drops.by_adapter),
                        !summary.capture.IsSpoiled()});
  }
  verdicts.push_back({"frames not measured", "0", FormatCount(summary.FramesNotMeasured()),
                      summary.FramesNotMeasured() == 0});
  if (!summary.capture.broken_off.empty()) {
    verdicts.push_back({"whole capture", "to its end", summary.capture.broken_off, false});
  }
  for (const Limit& limit : requirements.limits) {
    verdicts.push_back(JudgeLimit(summary, limit));
  }
  if (requirements.content_equal) {
    std::uint64_t equal = 0;
    std::uint64_t skipped = 0;
    for (const StreamSummary& stream : summary.streams) {
      equal += stream.compare ? stream.compare->equal : 0;
      skipped += stream.compare ? stream.compare->bytes_skipped : 0;
    }
    const std::uint64_t different = summary.total.different_datagrams;
    verdicts.push_back(
        {"--expect", "0 datagrams differ",
         fmt::format("{} differ, {} equal{}", FormatCount(different), FormatCount(equal),
                     skipped > 0 ? fmt::format(", {} skipped", FormatBytes(skipped)) : ""),
         different == 0 && skipped == 0 && equal > 0});
  }
  return verdicts;
}

bool AllMet(std::span<const Verdict> verdicts) {
  return std::ranges::all_of(verdicts, [](const Verdict& verdict) { return verdict.met; });
}

}  // namespace ipplay::measure
