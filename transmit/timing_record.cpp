// SPDX-License-Identifier: MIT
#include "transmit/timing_record.h"

namespace ipplayout {

void TimingRecord::Left(Time behind, Time tolerance) {
  Count(behind > tolerance ? late_ : on_time_);
  lateness_.Record(behind);
}

void TimingRecord::Departed(Time departure) {
  const std::int64_t last = last_departure_ns_.load(kRelaxed);
  if (last < 0) {
    first_departure_ns_.store(departure.count(), kRelaxed);
  } else if (departure.count() - last > longest_gap_ns_.load(kRelaxed)) {
    longest_gap_ns_.store(departure.count() - last, kRelaxed);
  }
  last_departure_ns_.store(departure.count(), kRelaxed);
}

TimingRecord::Counts TimingRecord::Read() const {
  return {on_time_.load(kRelaxed),
          late_.load(kRelaxed),
          left_out_.load(kRelaxed),
          not_sent_.load(kRelaxed),
          discarded_.load(kRelaxed),
          dry_times_.load(kRelaxed),
          retries_.load(kRelaxed),
          Time(dry_ns_.load(kRelaxed)),
          Time(shift_ns_.load(kRelaxed)),
          Time(first_departure_ns_.load(kRelaxed)),
          Time(last_departure_ns_.load(kRelaxed)),
          Time(longest_gap_ns_.load(kRelaxed))};
}

}  // namespace ipplayout
