// SPDX-License-Identifier: MIT
#include "host/stream/pcr_rate.h"

#include <bitstream/mpeg/ts.h>

#include <cmath>

namespace ipplay {
namespace {

double RateOf(std::uint64_t packets, std::uint64_t ticks) {
  return static_cast<double>(packets) * static_cast<double>(kPcrHz) / static_cast<double>(ticks);
}

}  // namespace

std::uint64_t PcrRate::TicksOfStretch(std::uint64_t packets) const {
  const double seconds = static_cast<double>(packets) / packets_per_second;
  return static_cast<std::uint64_t>(std::llround(seconds * static_cast<double>(kPcrHz)));
}

std::uint64_t PcrRate::TicksOf(std::uint64_t packets) const {
  const std::uint64_t between = (last_pcr + kPcrModulus - first_pcr) % kPcrModulus;
  return (between + TicksOfStretch(first_packet + packets - last_packet)) % kPcrModulus;
}

void PcrRateMeter::Add(std::uint64_t index, const std::uint8_t* packet) {
  const auto pcr = ReadPcr(packet);
  if (!pcr) {
    return;
  }
  const auto [entry, is_new] = clocks_.try_emplace(ts_get_pid(packet));
  Clock& clock = entry->second;
  if (is_new) {
    clock.rate.pid = entry->first;
    clock.rate.first_packet = index;
    clock.rate.first_pcr = *pcr;
  } else {
    Advance(clock, index, *pcr, tsaf_has_discontinuity(packet));
  }
  clock.rate.last_packet = index;
  clock.rate.last_pcr = *pcr;
}

void PcrRateMeter::Advance(Clock& clock, std::uint64_t index, std::uint64_t pcr, bool announced) {
  const std::uint64_t packets = index - clock.rate.last_packet;
  const std::uint64_t ticks = (pcr + kPcrModulus - clock.rate.last_pcr) % kPcrModulus;
  if (clock.skipped) {
    AdvanceOverSkipped(clock, packets, ticks);
    return;
  }
  if (announced || IsJump(clock, packets, ticks)) {
    ++clock.rate.discontinuities;
    clock.stretch_packets = clock.stretch_ticks = 0;
    return;
  }
  if (pcr < clock.rate.last_pcr) {
    ++clock.rate.wraps;
  }
  clock.covered_packets += packets;
  clock.covered_ticks += ticks;
  AddToStretch(clock, packets, ticks);
}

void PcrRateMeter::Skip() {
  for (auto& [pid, clock] : clocks_) {
    clock.skipped = true;
  }
}

// Jumps, and wraps beyond the first, are not seen. They show as a rate that is far from the known.
void PcrRateMeter::AdvanceOverSkipped(Clock& clock, std::uint64_t packets, std::uint64_t ticks) {
  constexpr double kFar = 3;
  clock.skipped = false;
  clock.stretch_packets = clock.stretch_ticks = 0;
  if (ticks == 0 || clock.covered_ticks == 0) {
    return;
  }
  const double ratio = RateOf(packets, ticks) / RateOf(clock.covered_packets, clock.covered_ticks);
  if (ratio < 1 / kFar || ratio > kFar) {
    return;
  }
  clock.covered_packets += packets;
  clock.covered_ticks += ticks;
}

// PCRs come at least every 100 ms, in practice up to a second apart. Between one and ten seconds
// only a sudden fall of the rate distinguishes a jump from a stream with rare PCRs.
bool PcrRateMeter::IsJump(const Clock& clock, std::uint64_t packets, std::uint64_t ticks) {
  if (ticks == 0 || ticks > 10 * kPcrHz) {
    return true;
  }
  if (ticks <= kPcrHz || clock.covered_ticks == 0) {
    return false;
  }
  return RateOf(packets, ticks) < RateOf(clock.covered_packets, clock.covered_ticks) / 4;
}

void PcrRateMeter::AddToStretch(Clock& clock, std::uint64_t packets, std::uint64_t ticks) {
  clock.stretch_packets += packets;
  clock.stretch_ticks += ticks;
  if (clock.stretch_ticks < kPcrHz) {
    return;
  }
  const double rate = RateOf(clock.stretch_packets, clock.stretch_ticks);
  const bool is_first = clock.rate.highest == 0;
  clock.rate.lowest = is_first ? rate : std::fmin(clock.rate.lowest, rate);
  clock.rate.highest = is_first ? rate : std::fmax(clock.rate.highest, rate);
  clock.stretch_packets = clock.stretch_ticks = 0;
}

const PcrRateMeter::Clock* PcrRateMeter::Best() const {
  const Clock* best = nullptr;
  for (const auto& [pid, clock] : clocks_) {
    if (best == nullptr || clock.covered_packets > best->covered_packets) {
      best = &clock;
    }
  }
  return best;
}

std::optional<PcrRate> PcrRateMeter::Rate(std::optional<std::uint16_t> pid) const {
  const Clock* clock = Best();
  if (pid) {
    const auto entry = clocks_.find(*pid);
    clock = entry == clocks_.end() ? nullptr : &entry->second;
  }
  if (clock == nullptr || clock->covered_packets == 0) {
    return std::nullopt;
  }
  PcrRate rate = clock->rate;
  rate.packets_per_second = RateOf(clock->covered_packets, clock->covered_ticks);
  if (rate.highest == 0) {
    rate.lowest = rate.highest = rate.packets_per_second;
  }
  return rate;
}

double PcrRateMeter::SecondsCovered() const {
  const Clock* best = Best();
  return best == nullptr ? 0
                         : static_cast<double>(best->covered_ticks) / static_cast<double>(kPcrHz);
}

}  // namespace ipplay
