// SPDX-License-Identifier: MIT
#include "host/play/play_plan.h"

#include <fmt/format.h>

#include <cmath>

#include "host/base/units.h"
#include "host/play/plan_schedule.h"
#include "host/play/plan_settings.h"

namespace ipplay {
namespace {

using Notes = std::vector<std::string>;

std::optional<Failure> CheckTimeLine(const PlayOptions& options) {
  for (const auto& [time, action] : options.time_line) {
    if (action.kind == ActionKind::kDelay && !options.to.rtp) {
      return UsageFailure("--at: delay needs an rtp:// target");
    }
    if (action.kind == ActionKind::kBadIpChecksum && options.to.address.is_v6) {
      return UsageFailure(
          "--at: bad-ip-checksum needs an IPv4 target; IPv6 has no header checksum");
    }
  }
  return std::nullopt;
}

std::optional<Failure> CheckErrors(const PlayOptions& options) {
  if (options.delay && !options.to.rtp) {
    return UsageFailure("--delay needs an rtp:// target");
  }
  if (options.bad_ip_checksum && options.to.address.is_v6) {
    return UsageFailure("--bad-ip-checksum needs an IPv4 target; IPv6 has no header checksum");
  }
  if (options.bad_ip_checksum && options.bad_udp_checksum) {
    return UsageFailure(
        "--bad-ip-checksum and --bad-udp-checksum exclude each other; give one, and order the "
        "other with --at or keys");
  }
  if (options.random && !options.lose && !options.delay && !options.bad_ip_checksum &&
      !options.bad_udp_checksum) {
    return UsageFailure("--random needs --lose, --delay or a --bad-...-checksum");
  }
  if (options.pcr_pid && options.raw) {
    return UsageFailure("--pcr-pid and --raw exclude each other: raw input has no PCRs; give one");
  }
  if (options.program && options.raw) {
    return UsageFailure(
        "--program and --raw exclude each other: raw input has no programmes; give one");
  }
  if ((options.from || options.duration) && options.raw) {
    return UsageFailure(
        "--from and --duration exclude --raw: raw input has no PCRs; give one or the other");
  }
  return CheckTimeLine(options);
}

void NoteRtpClock(const PlayPlan& plan, Notes& notes) {
  constexpr double kTolerance = 30e-6;
  const Rates& rates = plan.rates;
  if (rates.rtp_clock_ratio == 0 || std::abs(rates.rtp_clock_ratio - 1) <= kTolerance) {
    return;
  }
  const double step = static_cast<double>(rates.rtp_step_bytes) * plan.copies;
  const std::string reason =
      step == plan.sizes.frame_bytes * rates.share_sent
          ? fmt::format("its clock counts whole bits per second, {} of {:.6g}",
                        std::trunc(rates.frame), rates.frame)
          : fmt::format("its clock advances with every {}, by {} bytes for a frame of {}",
                        plan.copies > 1 ? "copy, lost ones included" : "datagram, lost or not",
                        rates.rtp_step_bytes, plan.sizes.frame_bytes);
  notes.push_back(fmt::format("RTP time runs at {:.6g} kHz instead of 90: {}",
                              rates.rtp_clock_ratio * 90, reason));
}

// A stream of varying rate has its own times, unless a rate is given. The one playout that is
// paced by a rate has bursts and jitter by it.
bool FollowsPcrs(const PlayOptions& options, const StreamFacts& facts) {
  return facts.rate && facts.rate->IsVariable() && !options.bit_rate && !options.frame_bit_rate &&
         !options.burst && !options.jitter;
}

// What only the process-wide playout does: it takes any number of copies, lets its thread's
// priority be chosen, and hands frames over in batches, which a schedule of single frames cannot
// keep up with.
bool IsScheduled(const PlayOptions& options, const PlayPlan& plan) {
  constexpr std::uint32_t kMostCopies = 65536;
  constexpr std::chrono::microseconds kShortestGap(5);
  return plan.copies <= kMostCopies && options.priority == IPPLAYOUT_PRIORITY_ABOVE_NORMAL &&
         plan.rates.gap >= kShortestGap;
}

std::optional<Failure> CheckForSchedule(const PlayOptions& options) {
  const struct {
    const char* name;
    bool is_given;
  } kOptions[] = {{"--late", options.late.has_value()},
                  {"--max-late", options.max_late.has_value()},
                  {"--no-underrun", options.no_underrun},
                  {"--seed", options.seed.has_value()}};
  for (const auto& option : kOptions) {
    if (option.is_given) {
      return UsageFailure(
          fmt::format("{} needs frames that are paced one by one: give at most 65,536 --copies, a "
                      "rate with at least 5 us between frames, and no --priority",
                      option.name));
    }
  }
  return std::nullopt;
}

// A lost datagram keeps its place, and RTP time is that of the place.
void AdaptRates(Rates& rates) {
  rates.gap = std::chrono::nanoseconds(
      std::llround(static_cast<double>(rates.gap.count()) * rates.share_sent));
  rates.rtp_clock_ratio = rates.rtp_clock_ratio == 0 ? 0 : 1;
}

void NoteBitRate(const PlayOptions& options, const StreamFacts& facts, Notes& notes) {
  const auto own = facts.BitRate();
  constexpr double kSameRate = 1e-3;
  if (own && options.bit_rate && std::abs(*options.bit_rate / *own - 1) > kSameRate) {
    notes.push_back(
        fmt::format("--bitrate: {} is not the stream's own rate, {} by the PCRs of PID {}",
                    FormatBitRate(*options.bit_rate), FormatBitRate(*own), facts.rate->pid));
  }
  if (facts.rate && facts.rate->IsVariable()) {
    const double bits = 8.0 * facts.format.CountedBytes();
    notes.push_back(fmt::format(
        "the stream's bit rate varies from {} to {}; it is played {}",
        FormatBitRate(facts.rate->lowest * bits), FormatBitRate(facts.rate->highest * bits),
        FollowsPcrs(options, facts) ? "at the times of its PCRs" : "at a constant rate"));
  }
  if (facts.rate && facts.rate->discontinuities > 0) {
    notes.push_back(
        fmt::format("the PCRs of PID {} jump {} times; the rate is that of the parts in between",
                    facts.rate->pid, facts.rate->discontinuities));
  }
}

void NoteBytesLeftOut(const StreamFacts& facts, Notes& notes) {
  if (facts.leading_bytes > 0) {
    notes.push_back(fmt::format("{} bytes before the first transport packet are left out",
                                facts.leading_bytes));
  }
  if (facts.damage.places > 0) {
    notes.push_back(DamageText(facts.damage));
  }
  if (facts.trailing_bytes > 0) {
    notes.push_back(fmt::format("{} bytes after the last whole transport packet are left out",
                                facts.trailing_bytes));
  }
}

void NoteJitter(const PlayOptions& options, const PlayPlan& plan, Notes& notes) {
  if (options.jitter && options.jitter->distribution == 0 &&
      options.jitter->amount * 500 > static_cast<double>(plan.rates.gap.count())) {
    notes.push_back(
        fmt::format("--jitter: half of it is more than the gap of {}; a datagram never leaves "
                    "before the one in front of it",
                    FormatDuration(plan.rates.gap)));
  }
}

void AddNotes(const PlayOptions& options, const StreamFacts& facts, PlayPlan& plan) {
  NoteRtpClock(plan, plan.notes);
  NoteBitRate(options, facts, plan.notes);
  NoteBytesLeftOut(facts, plan.notes);
  if (options.near_wrap && !plan.rounds.restamp) {
    plan.notes.emplace_back(
        "--near-wrap: INPUT has no PCRs; only the RTP sequence number and the IPv4 identification "
        "start near their wraps");
  }
  NoteJitter(options, plan, plan.notes);
}

}  // namespace

std::string DamageText(const Damage& damage) {
  return fmt::format("INPUT is damaged in {} place{}, first at offset {}: {} bytes are left out",
                     FormatCount(damage.places), damage.places == 1 ? "" : "s", damage.first,
                     FormatCount(damage.bytes));
}

Result<PlayPlan> MakePlan(const PlayOptions& options, const StreamFacts& facts, const Path& path) {
  if (auto failure = CheckErrors(options)) {
    return *std::move(failure);
  }
  const auto headers = PlanHeaders(options, path);
  if (!headers) {
    return headers.Error();
  }
  const auto sizes = PlanSizes(options, facts.format, path.adapter);
  if (!sizes) {
    return sizes.Error();
  }
  const auto rates = PlanRates(options, facts, *sizes);
  if (!rates) {
    return rates.Error();
  }
  const auto rounds = PlanRounds(options, facts);
  if (!rounds) {
    return rounds.Error();
  }
  PlayPlan plan{*sizes, *rates, *rounds, options.copies, facts.damage, {},
                false,  {},     {},      headers->notes};
  const Decisions decided{facts.format, *headers, *sizes, *rates, *rounds};
  plan.settings = SettingsFor(options, path, decided);
  plan.schedule = ScheduleFor(options, path, decided, plan.settings);
  if (FollowsPcrs(options, facts)) {
    plan.pcr_rate = facts.rate;
    plan.schedule.BitRate = 0;
  }
  plan.by_schedule = plan.pcr_rate || !options.into.empty() || IsScheduled(options, plan);
  if (plan.by_schedule) {
    AdaptRates(plan.rates);
  } else if (auto failure = CheckForSchedule(options)) {
    return *std::move(failure);
  }
  AddNotes(options, facts, plan);
  return plan;
}

}  // namespace ipplay
