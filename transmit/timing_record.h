// SPDX-License-Identifier: MIT
// When the frames of one playout left, as the transmitter saw it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "transmit/lateness_histogram.h"

namespace ipplayout {

// Written by the transmitter, the stamps by whoever reads departures; read by any thread.
class TimingRecord {
 public:
  using Time = std::chrono::nanoseconds;

  // ---- Transmitter ----

  // A frame left so much behind its place; late when that is above `tolerance`.
  void Left(Time behind, Time tolerance);
  // It left at this time, and is one of the stream itself.
  void Departed(Time departure);
  void LeftOut() { Count(left_out_); }
  void NotSent() { Count(not_sent_); }
  // Frames that are left in the ring.
  void Discarded(std::uint64_t total) { discarded_.store(total, kRelaxed); }
  // The next frame was not there for this long when it was due.
  void WasDry(Time length) {
    Count(dry_times_);
    dry_ns_.fetch_add(length.count(), kRelaxed);
  }
  // How often the destination's queue was full so far.
  void Retried(std::uint64_t total) { retries_.store(total, kRelaxed); }
  void Shifted(Time by) { shift_ns_.store(by.count(), kRelaxed); }

  // ---- Reader of departures ----

  void Stamped(Time behind) { stamps_.Record(behind); }

  // ---- Any thread ----

  struct Counts {
    std::uint64_t on_time = 0;
    std::uint64_t late = 0;
    std::uint64_t left_out = 0;
    std::uint64_t not_sent = 0;
    std::uint64_t discarded = 0;
    std::uint64_t dry_times = 0;
    std::uint64_t retries = 0;
    Time dry{0};
    Time shift{0};
    Time first_departure{0};  // the following three: -1 before any
    Time last_departure{0};
    Time longest_gap{0};
  };
  Counts Read() const;
  const LatenessHistogram& Lateness() const { return lateness_; }
  const LatenessHistogram& Stamps() const { return stamps_; }

 private:
  using Counter = std::atomic<std::uint64_t>;
  static constexpr auto kRelaxed = std::memory_order_relaxed;

  // One writer: no locked instruction.
  static void Count(Counter& counter) { counter.store(counter.load(kRelaxed) + 1, kRelaxed); }

  Counter on_time_{0};
  Counter late_{0};
  Counter left_out_{0};
  Counter not_sent_{0};
  Counter discarded_{0};
  Counter dry_times_{0};
  Counter retries_{0};
  std::atomic<std::int64_t> dry_ns_{0};
  std::atomic<std::int64_t> shift_ns_{0};
  std::atomic<std::int64_t> first_departure_ns_{-1};
  std::atomic<std::int64_t> last_departure_ns_{-1};
  std::atomic<std::int64_t> longest_gap_ns_{-1};
  LatenessHistogram lateness_;
  LatenessHistogram stamps_;
};

}  // namespace ipplayout
