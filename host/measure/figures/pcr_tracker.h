// SPDX-License-Identifier: MIT
// One PID's program clock references, against the stream's bytes and against their arrival.
#pragma once

#include <cstdint>
#include <optional>

#include "host/measure/figures/interval_figures.h"
#include "host/measure/figures/line_extent.h"
#include "host/measure/figures/line_fit.h"

namespace ipplay::measure {

struct PcrSample {
  std::uint64_t pcr = 0;         // 27 MHz ticks, modulo 2^33 * 300
  std::int64_t arrival_ns = 0;   // of the datagram
  std::uint64_t byte_index = 0;  // place of the PCR's packet in the stream, in packets of 188 bytes
  std::int64_t byte_offset = 0;  // the same within its datagram; negative when it began before
  bool discontinuity = false;    // discontinuity_indicator of its packet
  std::uint32_t epoch = 0;       // changes whenever packets are missing, so that bytes don't count
  std::uint8_t counter = 0;      // continuity counter of its packet
};

// What one PCR, or the time without one, showed to be wrong.
struct PcrFaults {
  std::optional<std::int64_t> repetition_ns{};  // the interval
  std::optional<std::int64_t> jump_ns{};        // the step
  std::optional<double> accuracy_ns{};          // peak to peak of the stretch that ended
};

class PcrTracker {
 public:
  // ETSI TR 101 290, 5.2.2, 2.3.a and 2.3.b.
  static constexpr std::int64_t kLongestRepetitionNs = 40'000'000;
  static constexpr std::int64_t kLargestStepTicks = 27'000'000 / 10;
  // A missing PCR shows by arrival times alone, which the network moves: ISO/IEC 13818-1, 2.7.2.
  static constexpr std::int64_t kOverdueNs = 100'000'000;
  // ISO/IEC 13818-1, 2.4.2.2: 500 ns to either side [2.4].
  static constexpr double kAccuracyNs = 1000;
  // Slower changes than those within 100 s (10 mHz, TR 101 290, 5.3.2.4) are the clock's own.
  static constexpr std::int64_t kAccuracyStretchTicks = std::int64_t{100} * 27'000'000;

  // `now_ns` is when the stream began to promise PCRs; Add does it too.
  void Expect(std::int64_t now_ns);
  PcrFaults Add(const PcrSample& sample);
  // Packets came that cannot be read: up to the next PCR there may have been others.
  void SkipUnread(std::int64_t now_ns);
  // Whether the next PCR is overdue when packets have come up to `byte_index`, or, at the end of
  // the measurement, by the time alone. One error for each time without PCRs.
  PcrFaults Check(std::int64_t now_ns, std::optional<std::uint64_t> byte_index);
  // Judges what waited for a later PCR.
  PcrFaults Finish();

  std::uint64_t Count() const { return count_; }
  // By the PCRs; by arrival where they jump.
  const IntervalFigures& Intervals() const { return intervals_; }
  std::uint64_t RepetitionErrors() const { return repetition_errors_; }
  std::uint64_t DiscontinuityErrors() const { return discontinuity_errors_; }
  // Stretches whose accuracy was out of tolerance.
  std::uint64_t AccuracyErrors() const { return accuracy_errors_; }
  // Behind a later one, and the same packet once more.
  std::uint64_t Late() const { return late_; }
  std::uint64_t Repeated() const { return repeated_; }

  // Nanoseconds from peak to peak between the PCRs and their places in a stream of constant bit
  // rate (PCR_AC), at the rate that fits them best; worst stretch without missing packets. None
  // without three PCRs in such a stretch.
  std::optional<double> AccuracySpread() const;
  // Nanoseconds from peak to peak between arrivals and PCRs once the frequency offset is taken off
  // (PCR_OJ), worst stretch without a discontinuity. None without three PCRs in such a stretch.
  std::optional<double> ArrivalSpread() const;
  // How much faster (positive) or slower the clock of the PCRs runs than the time of their arrival,
  // in parts per million (PCR_FO).
  std::optional<double> FrequencyOffsetPpm() const;
  // How much later each nanosecond of the PCRs arrives: the slope of what LastOffset returns.
  double ArrivalSlope() const;
  // The last arrival's place against the clock of the PCRs in ns, as counted from the first one;
  // the clock's frequency offset is still in it.
  std::optional<double> LastOffset() const { return last_offset_ns_; }
  // Bit rate of the stream of 188-byte packets by its PCRs.
  std::optional<double> BitRate() const;
  // Bytes that are missing in a stream of constant rate between PCRs where packets are known to be
  // missing or moved. None where the rate is not known or not constant.
  std::optional<double> MissingBytes() const;

 private:
  struct Point {
    std::int64_t ticks;
    std::int64_t arrival_ns;
    std::int64_t byte_offset;
  };

  void SettleSuspect(const PcrSample& next, PcrFaults& faults);
  void Continue(const PcrSample& sample, PcrFaults& faults);
  void Jump(const PcrSample& sample, std::int64_t step, PcrFaults& faults);
  void Advance(const PcrSample& sample, std::int64_t step, PcrFaults& faults);
  void TakeInterval(std::int64_t interval_ns, PcrFaults& faults);
  void StartStretch(const PcrSample& sample, PcrFaults& faults);
  void TakeUp(const PcrSample& sample, PcrFaults& faults);
  void AddToAccuracy(const PcrSample& sample, PcrFaults& faults);
  void EndAccuracy(PcrFaults& faults);
  void AddArrival(const Point& point);
  void CompareWithArrival(const Point& point, double ticks_per_byte);
  bool IsRepeat(const PcrSample& sample) const;
  // Whether a step of the PCRs is the time in which packets went missing.
  bool IsLoss(const PcrSample& sample, std::int64_t step) const;
  std::int64_t ArrivalInterval(const PcrSample& sample) const;
  bool IsRateKnown() const;
  // Of stretches without missing packets; while there are too few, of all that has arrived.
  std::optional<double> TicksPerByte() const;

  std::uint64_t count_ = 0;
  bool expected_ = false;
  bool overdue_ = false;
  bool unread_ = false;       // packets since the last one
  std::int64_t last_ns_ = 0;  // when the last one came, or the first one was promised
  PcrSample last_;
  std::optional<PcrSample> suspect_;  // behind the last one: late, or the first of a new clock
  IntervalFigures intervals_;
  std::uint64_t repetition_errors_ = 0;
  std::uint64_t discontinuity_errors_ = 0;
  std::uint64_t accuracy_errors_ = 0;
  std::uint64_t late_ = 0;
  std::uint64_t repeated_ = 0;

  // PCR against bytes: x is the byte, y the PCR in ticks, both from the stretch's start.
  LineExtent accuracy_;
  std::uint64_t accuracy_count_ = 0;
  std::uint64_t accuracy_first_byte_ = 0;
  std::int64_t accuracy_first_ticks_ = 0;
  std::optional<double> worst_accuracy_ticks_;
  // Sums over steps between PCRs without and with missing packets between them.
  std::uint64_t whole_bytes_ = 0;
  std::int64_t whole_ticks_ = 0;
  std::uint64_t broken_bytes_ = 0;
  std::int64_t broken_ticks_ = 0;

  // Arrival against PCR: x is the PCR in ns, y the arrival less x.
  LineExtent arrival_;
  std::int64_t ticks_ = 0;  // PCR since the stretch's start, wraps removed
  std::int64_t stretch_arrival_ns_ = 0;
  std::optional<Point> waiting_;  // for a rate
  std::int64_t last_x_ns_ = 0;
  double rebase_ns_ = 0;  // joins the stretches for plotting
  std::optional<double> last_offset_ns_;
  std::optional<double> worst_arrival_ns_;
  LineFit fit_;  // of y over x within the stretch; the sums of those that have ended
  double ended_xx_ = 0, ended_xy_ = 0;
};

}  // namespace ipplay::measure
