// SPDX-License-Identifier: MIT
#include "host/play/play_plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "host/base/machine.h"
#include "host/base/units.h"
#include "host/base/wall_clock.h"
#include "host/play/given_option.h"
#include "host/play/plan_capture.h"
#include "host/play/plan_faults.h"
#include "host/play/plan_fec.h"
#include "host/play/plan_schedule.h"
#include "host/play/plan_settings.h"

namespace ipplay {
namespace {

using Notes = std::vector<std::string>;

std::optional<Failure> CheckErrors(const PlayOptions& options) {
  if (options.pcr_pid && options.raw) {
    return UsageFailure("--pcr-pid and --raw exclude each other: raw input has no PCRs; give one");
  }
  if (options.program && options.raw) {
    return UsageFailure(
        "--program and --raw exclude each other: raw input has no programmes; give one");
  }
  if (!options.pids.empty() && options.raw) {
    return UsageFailure("--pid and --raw exclude each other: raw input has no PIDs; give one");
  }
  if ((options.from || options.duration) && options.raw) {
    return UsageFailure(
        "--from and --duration exclude --raw: raw input has no PCRs; give one or the other");
  }
  if (!options.sdp.empty() && !options.to.rtp) {
    return UsageFailure("--sdp needs an rtp:// target");
  }
  if (options.sap && options.vlan) {
    return UsageFailure(
        "--sap and --vlan exclude each other: announcements leave without a tag; give one");
  }
  if (options.start_at && !options.into.empty()) {
    return UsageFailure("--start-at and --into exclude each other: a file has no time; give one");
  }
  if (options.as_188 && options.raw) {
    return UsageFailure(
        "--as-188 and --raw exclude each other: raw input has no packets; give one");
  }
  return CheckFaults(options);
}

std::optional<Failure> CheckSpeed(const PlayOptions& options, const StreamFacts& facts) {
  if (facts.live && facts.rate && SpeedOf(options) != 1) {
    return UsageFailure(fmt::format("{}: a live input is played as fast as it comes; leave it out",
                                    options.speed != 1 ? "--speed" : "--ppm"));
  }
  if (facts.live && options.start_at) {
    return UsageFailure("--start-at: a live input is played when it comes; leave it out");
  }
  return std::nullopt;
}

std::optional<Failure> CheckOptions(const PlayOptions& options, const StreamFacts& facts) {
  if (auto failure = CheckErrors(options)) {
    return failure;
  }
  if (auto failure = CheckSpeed(options, facts)) {
    return failure;
  }
  return CheckCapture(options, facts);
}

std::optional<Failure> CheckDatagrams(const PlayOptions& options, const StreamFacts& facts,
                                      PacketFormat format, const Sizes& sizes,
                                      const Adapter& adapter) {
  if (auto failure = CheckFec(options, sizes, adapter)) {
    return failure;
  }
  return CheckHoles(options, facts, format, sizes);
}

// Where the process-wide playout's RTP clock is exact: its step is a whole number of bytes.
std::string ExactCopies(const PlayPlan& plan) {
  const std::uint64_t bytes = plan.sizes.frame_bytes;
  if (plan.copies == 1 || plan.rates.share_sent < 1 || plan.sizes.to_the_byte) {
    return "";
  }
  std::uint64_t fewer = std::min<std::uint64_t>(plan.copies, bytes);
  while (bytes % fewer != 0) {
    --fewer;
  }
  std::uint64_t more = plan.copies;
  while (more < bytes && bytes % more != 0) {
    ++more;
  }
  return fmt::format("; with {}{} --copies it is exact", fewer,
                     more > fewer && more <= bytes ? fmt::format(" or {}", more) : "");
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
  notes.push_back(fmt::format("RTP time runs at {:.6g} kHz instead of 90: {}{}",
                              rates.rtp_clock_ratio * 90, reason, ExactCopies(plan)));
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

// A stream of varying rate has its own times, unless a rate is given. The one playout that is
// paced by a rate has bursts and jitter by it. What comes once is always played by its PCRs, since
// its rate is known for its beginning only; and streams in a row are, since each has a rate of its
// own.
bool FollowsPcrs(const PlayOptions& options, const StreamFacts& facts, const PlayPlan& plan) {
  if (!facts.rate) {
    return false;
  }
  if (!facts.bytes) {
    return IsScheduled(options, plan);
  }
  if (!facts.list.empty()) {
    return !options.bit_rate && !options.frame_bit_rate;
  }
  return facts.rate->IsVariable() && !options.bit_rate && !options.frame_bit_rate &&
         !options.burst && !options.jitter;
}

// What waits to be played is as much as was read ahead.
void FollowInput(const PlayOptions& options, const StreamFacts& facts, PlayPlan& plan) {
  if (facts.bytes || SpeedOf(options) != 1) {
    return;
  }
  plan.lead = ReadAhead(options, facts.live);
  constexpr double kMoreSeconds = 2;  // than usual may come before it holds the source up
  constexpr double kMostRing = 64 << 20;
  const double bytes = plan.rates.PayloadBytesPerSecond(plan.sizes) * facts.rate->highest /
                       facts.rate->packets_per_second;
  const double seconds = std::chrono::duration<double>(*plan.lead).count() + kMoreSeconds;
  plan.schedule.RingBytes = static_cast<std::uint32_t>(
      std::clamp(bytes * seconds, static_cast<double>(plan.schedule.RingBytes), kMostRing));
}

// Of rounds as they are played.
void ScaleRounds(const StreamFacts& facts, PacketFormat format, const Rates& rates,
                 Rounds& rounds) {
  double share = facts.format.IsRaw()
                     ? 1
                     : static_cast<double>(format.packet_bytes) / facts.format.packet_bytes;
  if (rates.fill) {
    share *= rates.fill->packets_per_second / rates.fill->own_packets_per_second;
  }
  for (auto* bytes : {&rounds.round_bytes, &rounds.total_bytes}) {
    if (*bytes && share != 1) {
      *bytes = static_cast<std::uint64_t>(std::llround(static_cast<double>(**bytes) * share));
    }
  }
}

std::optional<Failure> CheckForSchedule(const PlayOptions& options) {
  const auto needs_schedule = NeedsSchedule(options);
  const GivenOption kOptions[] = {{"--fec", options.fec.has_value()},
                                  {"--twin", options.twin.has_value()},
                                  {"--late", options.late.has_value()},
                                  {"--max-late", options.max_late.has_value()},
                                  {"--no-underrun", options.no_underrun},
                                  {"--start-at", options.start_at.has_value()},
                                  {"--wait-link", options.wait_link},
                                  {"--seed", options.seed.has_value()},
                                  {"--ledger", !options.ledger.empty()},
                                  {needs_schedule.value_or(""), needs_schedule.has_value()}};
  if (const auto option = FirstGiven(kOptions)) {
    return UsageFailure(
        fmt::format("{} needs frames that are paced one by one: give at most 65,536 --copies, a "
                    "rate with at least 5 us between frames, and no --priority",
                    *option));
  }
  return std::nullopt;
}

// A lost datagram keeps its place, and RTP time is that of the place.
void AdaptRates(Rates& rates) {
  rates.gap = std::chrono::nanoseconds(
      std::llround(static_cast<double>(rates.gap.count()) * rates.share_sent));
  rates.rtp_clock_ratio = rates.rtp_clock_ratio == 0 ? 0 : 1;
}

void NoteBitRate(const PlayOptions& options, const StreamFacts& facts, const PlayPlan& plan,
                 Notes& notes) {
  const double bits = 8.0 * facts.format.CountedBytes();
  if (const auto& fill = plan.rates.fill) {
    notes.push_back(fmt::format(
        "null packets {} the stream, {} by the PCRs of PID {}, {}; --speed plays it faster or "
        "slower",
        fill->packets_per_second < fill->own_packets_per_second ? "are taken out of" : "fill up",
        FormatBitRate(fill->own_packets_per_second * bits), fill->pcr_pid,
        options.bit_rate ? "to --bitrate" : "to --frame-bitrate"));
  } else if (facts.bytes && facts.rate && facts.rate->IsVariable()) {
    notes.push_back(fmt::format("the stream's bit rate varies from {} to {}; it is played {}",
                                FormatBitRate(facts.rate->lowest * bits),
                                FormatBitRate(facts.rate->highest * bits),
                                plan.pcr_rate ? "at the times of its PCRs" : "at a constant rate"));
  }
  if (facts.rate && facts.rate->discontinuities > 0) {
    notes.push_back(
        fmt::format("the PCRs of PID {} jump {}; the rate is that of the parts in between",
                    facts.rate->pid, FormatCount(facts.rate->discontinuities, "time")));
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

void NoteFormat(const PlayOptions& options, const StreamFacts& facts, Notes& notes) {
  if (facts.format.packet_bytes > 188 && !options.as_188) {
    notes.push_back(fmt::format(
        "packets of {} bytes leave as they are, and few receivers take them; --as-188 plays 188 "
        "bytes of each",
        facts.format.packet_bytes));
  }
}

bool IsJitterBeyondGap(const PlayOptions& options, const PlayPlan& plan) {
  return options.jitter && options.jitter->distribution == IPPLAYOUT_JITTER_SQUARE &&
         options.jitter->amount * 500 > static_cast<double>(plan.rates.gap.count());
}

// Without places in a schedule the mean rate falls by what gaps cannot give, and with bursts by
// each that is late.
std::optional<Failure> CheckJitterByRate(const PlayOptions& options, const PlayPlan& plan) {
  constexpr const char* kWhy = "lower the mean rate with --priority or frames less than 5 us apart";
  if (!options.jitter || options.jitter->distribution != IPPLAYOUT_JITTER_SQUARE) {
    return std::nullopt;
  }
  if (options.burst) {
    return UsageFailure(fmt::format(
        "--jitter: square and --burst {}; give gaussian:PERCENT%, or neither of these", kWhy));
  }
  if (IsJitterBeyondGap(options, plan)) {
    return UsageFailure(
        fmt::format("--jitter: half of it is more than the gap of {}, which would {}; give at most "
                    "square:{}us, or neither of these",
                    FormatDuration(plan.rates.gap), kWhy, plan.rates.gap.count() / 500));
  }
  return std::nullopt;
}

void NoteJitter(const PlayOptions& options, const PlayPlan& plan, Notes& notes) {
  if (IsJitterBeyondGap(options, plan)) {
    notes.push_back(
        fmt::format("--jitter: half of it is more than the gap of {}; a datagram never leaves "
                    "before the one in front of it",
                    FormatDuration(plan.rates.gap)));
  }
}

// What a burst does to the rate of a stream that ends.
void NoteBurst(const PlayOptions& options, const PlayPlan& plan, Notes& notes) {
  if (!options.burst || !plan.rounds.total_bytes) {
    return;
  }
  const std::uint64_t burst = plan.rates.batch / plan.copies;
  const std::uint64_t payload = plan.sizes.payload_bytes;
  const std::uint64_t datagrams = (*plan.rounds.total_bytes + payload - 1) / payload;
  const std::uint64_t last = datagrams % burst;
  if (datagrams <= burst) {
    notes.push_back(fmt::format(
        "--burst: the whole stream fits into a burst of {} datagrams and leaves at once, not at {}",
        FormatCount(burst), FormatBitRate(plan.rates.stream)));
  } else if (last > 0 && !plan.by_schedule) {
    notes.push_back(fmt::format(
        "--burst: the last one, of {} instead of {} datagrams, follows the one before at once, so "
        "that the stream takes {} instead of {}; without --priority it leaves at its own time",
        FormatCount(last), FormatCount(burst),
        FormatDuration(plan.rates.gap * ((datagrams / burst - 1) * burst * plan.copies)),
        FormatDuration(plan.rates.gap * (datagrams / burst * burst * plan.copies))));
  }
}

void NoteStart(const PlayOptions& options, Notes& notes) {
  if (!options.start_at) {
    return;
  }
  const auto error = LargestClockErrorNs();
  notes.push_back(fmt::format(
      "--start-at: starts at {}; this machine's clock {}", UtcText(options.start_at->count()),
      error ? fmt::format("is right to within {}", FormatDuration(std::chrono::nanoseconds(*error)))
            : "is not synchronised"));
}

void NoteShape(const PlayOptions& options, const StreamFacts& facts, Notes& notes) {
  if (options.rounds.value_or(2) > 1 && !options.restamp && !options.near_wrap && facts.rate &&
      facts.list.empty()) {
    notes.emplace_back(
        "each round starts anew for a receiver, with PCR, PTS and counters set back; --restamp "
        "joins the rounds");
  }
}

void AddNotes(const PlayOptions& options, const StreamFacts& facts, PlayPlan& plan) {
  NoteStart(options, plan.notes);
  NoteRtpClock(plan, plan.notes);
  NoteBitRate(options, facts, plan, plan.notes);
  NoteFormat(options, facts, plan.notes);
  NoteBytesLeftOut(facts, plan.notes);
  for (const ListedStream& listed : facts.list) {
    Notes of_one;
    NoteBytesLeftOut(listed.facts, of_one);
    for (const std::string& note : of_one) {
      plan.notes.push_back(listed.name + ": " + note);
    }
  }
  if (options.near_wrap && !plan.rounds.restamp) {
    plan.notes.emplace_back(
        "--near-wrap: INPUT has no PCRs; only the RTP sequence number and the IPv4 identification "
        "start near their wraps");
  }
  NoteCapture(options, facts, plan.notes);
  NoteJitter(options, plan, plan.notes);
  NoteBurst(options, plan, plan.notes);
  NoteShape(options, facts, plan.notes);
}

// By the marks of a schedule, or at one rate for all.
std::optional<Failure> PlanSchedule(const PlayOptions& options, const StreamFacts& facts,
                                    PlayPlan& plan) {
  if (options.by_arrival) {
    plan.by_arrival = true;
    plan.schedule.BitRate = 0;
    LimitAhead(options, facts, plan.schedule);
  } else if (FollowsPcrs(options, facts, plan)) {
    plan.pcr_rate = facts.rate;
    if (plan.rates.fill) {
      plan.pcr_rate->packets_per_second = plan.rates.fill->packets_per_second;
    }
    plan.schedule.BitRate = 0;
    FollowInput(options, facts, plan);
  }
  plan.by_schedule = plan.IsMarked() || !options.into.empty() || IsScheduled(options, plan);
  if (!plan.by_schedule) {
    auto failure = CheckForSchedule(options);
    return failure ? failure : CheckJitterByRate(options, plan);
  }
  AdaptRates(plan.rates);
  return std::nullopt;
}

}  // namespace

std::string DamageText(const Damage& damage) {
  return fmt::format("INPUT is damaged in {}, first at offset {}: {} left out",
                     FormatCount(damage.places, "place"), damage.first,
                     FormatCount(damage.bytes, "byte"));
}

Result<PlayPlan> MakePlan(const PlayOptions& options, const StreamFacts& facts, const Path& path) {
  if (auto failure = CheckOptions(options, facts)) {
    return *std::move(failure);
  }
  const auto headers = PlanHeaders(options, path);
  if (!headers) {
    return headers.Error();
  }
  EditPlan edits{.as_188 = options.as_188};
  const PacketFormat format = StreamEditor::Format(facts.format, edits);
  const auto sizes = PlanSizes(options, format, path.adapter, CapturedPackets(options, facts));
  if (!sizes) {
    return sizes.Error();
  }
  if (auto failure = CheckDatagrams(options, facts, format, *sizes, path.adapter)) {
    return *std::move(failure);
  }
  const auto rates = PlanRates(options, facts, format, *sizes);
  if (!rates) {
    return rates.Error();
  }
  auto rounds = PlanRounds(options, facts);
  if (!rounds) {
    return rounds.Error();
  }
  ScaleRounds(facts, format, *rates, *rounds);
  edits.restamp = rounds->restamp;
  edits.fill = rates->fill;
  PlayPlan plan{.sizes = *sizes,
                .rates = *rates,
                .rounds = *rounds,
                .edits = edits,
                .copies = options.copies,
                .speed = options.speed,
                .damage = facts.damage,
                .settings = {},
                .pcr_rate = {},
                .lead = {},
                .notes = headers->notes};
  const Decisions decided{format, *headers, *sizes, *rates, *rounds};
  plan.settings = SettingsFor(options, path, decided);
  plan.schedule = ScheduleFor(options, path, decided, plan.settings);
  if (auto failure = PlanSchedule(options, facts, plan)) {
    return *std::move(failure);
  }
  AddNotes(options, facts, plan);
  return plan;
}

}  // namespace ipplay
