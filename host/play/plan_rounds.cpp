// SPDX-License-Identifier: MIT
#include "host/play/plan_rounds.h"

#include <cmath>

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
  // More than the file itself holds: not the end of a file that was cut, but time stamps that jump.
  return count > static_cast<double>(packets) ? 0 : static_cast<std::uint64_t>(count);
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

RestampPlan RestampFor(const PlayOptions& options, const StreamFacts& facts,
                       std::optional<std::uint64_t> rounds) {
  RestampPlan restamp;
  restamp.pcr_pid = facts.rate->pid;
  if (const auto packets = facts.Packets()) {
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
  if (facts.rate && (options.restamp || options.near_wrap)) {
    rounds.restamp = RestampFor(options, facts, rounds.count);
    if (rounds.round_bytes) {
      *rounds.round_bytes += rounds.restamp->seam.size() * facts.format.packet_bytes;
    }
  }
  if (rounds.round_bytes && rounds.count) {
    rounds.total_bytes = *rounds.round_bytes * *rounds.count;
  }
  return rounds;
}

}  // namespace ipplay
