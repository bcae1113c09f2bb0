// SPDX-License-Identifier: MIT
#include "host/play/plan_rounds.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace ipplay {
namespace {

// The null packets that a round needs at its end. A round that is shorter than its content, as
// where a file was cut, would let the next one begin before the last frames are over.
std::uint64_t NullPackets(const StreamFacts& facts, std::uint64_t packets) {
  const double missing = static_cast<double>(facts.content_ticks) * 300 -
                         static_cast<double>(facts.rate->TicksOf(packets));
  if (missing <= 0) {
    return 0;
  }
  const double count =
      std::ceil(missing / static_cast<double>(kPcrHz) * facts.rate->packets_per_second);
  // More than the file itself holds, or than a decoder's buffers may (still pictures, ISO/IEC
  // 13818-1, 2.4.2.6): not the end of a file that was cut, but time stamps that jump.
  constexpr double kLongestDelay = 60;  // seconds
  const double most =
      std::min(static_cast<double>(packets), kLongestDelay * facts.rate->packets_per_second);
  return count > most ? 0 : static_cast<std::uint64_t>(count);
}

std::optional<Failure> CheckRestamp(const PlayOptions& options, const StreamFacts& facts) {
  if (options.restamp && facts.format.IsRaw()) {
    return UsageFailure(
        "--restamp and --raw exclude each other: raw input has no transport packets; give one");
  }
  if (options.restamp && !facts.rate) {
    return UsageFailure("--restamp needs PCRs, and INPUT has none; leave it out");
  }
  return std::nullopt;
}

// The streams one behind the other, each by its own clock.
RestampPlan JoinList(const StreamFacts& facts) {
  RestampPlan join;
  join.pcr_pid = facts.rate->pid;
  for (const ListedStream& listed : facts.list) {
    const PcrRate& rate = *listed.facts.rate;
    const std::uint64_t packets = *listed.facts.Packets();
    const std::uint64_t nulls = NullPackets(listed.facts, packets);
    const std::uint64_t before = rate.TicksOfStretch(rate.first_packet) % kPcrModulus;
    RestampPart part{.start = (rate.first_pcr + kPcrModulus - before) % kPcrModulus,
                     .pcr_pid = rate.pid,
                     .seam = JoinPackets(rate, packets, nulls),
                     .tables = listed.facts.tables};
    // Those at the start take no time.
    const auto at_end = std::count_if(
        part.seam.begin(), part.seam.end(),
        [&rate](const SeamPacket& packet) { return packet.before_packet > rate.last_packet; });
    part.ticks = rate.TicksOf(packets + static_cast<std::uint64_t>(at_end));
    join.round_ticks += part.ticks;
    join.parts.push_back(std::move(part));
  }
  return join;
}

std::size_t Inserted(const RestampPlan& plan) {
  std::size_t packets = plan.seam.size();
  for (const RestampPart& part : plan.parts) {
    packets += part.seam.size();
  }
  return packets;
}

RestampPlan RestampFor(const PlayOptions& options, const StreamFacts& facts,
                       std::optional<std::uint64_t> rounds) {
  RestampPlan restamp;
  restamp.pcr_pid = facts.rate->pid;
  if (!facts.list.empty()) {
    restamp = JoinList(facts);
  } else if (const auto packets = facts.Packets()) {
    if (rounds != 1) {
      restamp.seam = SeamPackets(*facts.rate, *packets, NullPackets(facts, *packets));
    }
    restamp.round_ticks = facts.rate->TicksOf(*packets + restamp.seam.size());
  }
  if (options.near_wrap) {
    const auto before = static_cast<std::uint64_t>(kNearWrapSeconds * static_cast<double>(kPcrHz));
    restamp.start_offset = (2 * kPcrModulus - before - facts.rate->first_pcr) % kPcrModulus;
  }
  return restamp;
}

}  // namespace

Result<Rounds> PlanRounds(const PlayOptions& options, const StreamFacts& facts) {
  if (options.rounds != 1 && !facts.bytes) {
    return UsageFailure("--loop needs a file: a pipe or a live input can be read only once");
  }
  if (auto failure = CheckRestamp(options, facts)) {
    return *std::move(failure);
  }
  Rounds rounds;
  rounds.count = options.rounds;
  rounds.round_bytes = facts.bytes;
  rounds.live = facts.live;
  rounds.streams = std::max<std::size_t>(facts.list.size(), 1);
  if (facts.rate && (options.restamp || options.near_wrap || !facts.list.empty())) {
    rounds.restamp = RestampFor(options, facts, rounds.count);
    if (rounds.round_bytes) {
      *rounds.round_bytes += Inserted(*rounds.restamp) * facts.format.packet_bytes;
    }
  }
  if (rounds.round_bytes && rounds.count) {
    rounds.total_bytes = *rounds.round_bytes * *rounds.count;
  }
  return rounds;
}

}  // namespace ipplay
