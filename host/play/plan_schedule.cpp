// SPDX-License-Identifier: MIT
#include "host/play/plan_schedule.h"

#include <algorithm>
#include <random>

#include "host/library/scheduled_playout.h"
#include "host/play/plan_faults.h"
#include "host/play/plan_fec.h"

namespace ipplay {
namespace {

// The reader of the input may be held up for as long.
constexpr double kWrittenAhead = 1;  // seconds
constexpr double kLeastRing = 1 << 20;
constexpr double kMostRing = 64 << 20;

void SetBuffer(const PlayOptions& options, const Decisions& decided, IpPlayoutSettings& schedule) {
  const double rate = decided.rates.PayloadBytesPerSecond(decided.sizes);
  const double prefill = options.prefill ? static_cast<double>(options.prefill->count()) / 1e9 : 0;
  const double ring =
      std::clamp(rate * std::max(kWrittenAhead, 2 * prefill), kLeastRing, kMostRing);
  schedule.RingBytes = static_cast<std::uint32_t>(ring);
  const bool is_file = decided.rounds.round_bytes.has_value();
  schedule.StartBytes = static_cast<std::uint32_t>(options.prefill ? std::min(rate * prefill, ring)
                                                   : is_file       ? ring / 2
                                                                   : 0);
}

// Its file may be held up for as long, where that does not take too much memory.
void SetLedger(const PlayOptions& options, const Decisions& decided, IpPlayoutSettings& schedule) {
  constexpr double kLongestHold = 2;  // seconds
  constexpr double kLeastFrames = 1024;
  constexpr double kMostBytes = 64 << 20;
  const double frames_per_second =
      decided.rates.PayloadBytesPerSecond(decided.sizes) / decided.sizes.payload_bytes;
  schedule.LedgerFrames =
      static_cast<std::uint32_t>(std::clamp(frames_per_second * options.copies * kLongestHold,
                                            kLeastFrames, kMostBytes / decided.sizes.frame_bytes));
  schedule.Stamps = IPPLAYOUT_ON;
}

std::uint64_t DrawSeed() {
  std::random_device device;
  return std::uniform_int_distribution<std::uint64_t>(1, kMostSeed)(device);
}

}  // namespace

IpPlayoutSettings ScheduleFor(const PlayOptions& options, const Path& path,
                              const Decisions& decided, const Settings& settings) {
  IpPlayoutSettings schedule = ScheduledPlayout::Defaults();
  schedule.To = IPPLAYOUT_TO_ADAPTER;
  path.adapter.name.copy(schedule.Destination, sizeof schedule.Destination - 1);
  schedule.Params = settings.params;
  schedule.Params.IPPacketSize = decided.sizes.frame_bytes;
  schedule.Errors = settings.errors;
  schedule.Faults = FaultsFor(options, schedule.Faults);
  schedule.Parametric = settings.shape;
  schedule.Tts = settings.tts;
  schedule.TSPacketSize = settings.ts_packet_size;
  schedule.BitRate = decided.rates.frame / decided.rates.share_sent / 1e6;
  schedule.Precision = options.economy ? IPPLAYOUT_ECONOMICAL : IPPLAYOUT_PRECISE;
  schedule.Late = options.late.value_or(IPPLAYOUT_LATE_BOUNDED);
  if (options.wait_link) {
    schedule.Refused = IPPLAYOUT_REFUSED_COUNTS;
  }
  schedule.Seed = options.seed ? *options.seed : DrawSeed();
  ApplyFec(options, schedule);
  if (!options.ledger.empty()) {
    SetLedger(options, decided, schedule);
  }
  SetBuffer(options, decided, schedule);
  return schedule;
}

}  // namespace ipplay
