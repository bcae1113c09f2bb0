// SPDX-License-Identifier: MIT
// One PID's program clock references, against the stream's bytes and against their arrival.
#pragma once

#include <cstdint>
#include <optional>

#include "host/measure/figures/histogram.h"
#include "host/measure/figures/line_extent.h"

namespace ipplay::measure {

struct PcrSample {
  std::uint64_t pcr = 0;         // 27 MHz ticks, modulo 2^33 * 300
  std::int64_t arrival_ns = 0;   // of the datagram
  std::uint64_t byte_index = 0;  // place of the PCR's packet in the transport stream
  std::int64_t byte_offset = 0;  // the same within its datagram; negative when it began before
  bool discontinuity = false;    // discontinuity_indicator of its packet
  std::uint32_t epoch = 0;       // changes whenever packets are missing, so that bytes don't count
};

class PcrTracker {
 public:
  // ETSI TR 101 290, 5.2.2, 2.3.a and 2.3.b.
  static constexpr std::int64_t kLongestRepetitionNs = 40'000'000;
  static constexpr std::int64_t kLargestStepTicks = 27'000'000 / 10;

  // Returns the arrival's place against the clock of the PCRs in ns, as counted from the first
  // one; the clock's frequency offset is still in it.
  double Add(const PcrSample& sample);

  std::uint64_t Count() const { return count_; }
  const Histogram& Intervals() const { return intervals_; }  // ns between arrivals
  std::uint64_t RepetitionErrors() const { return repetition_errors_; }
  std::uint64_t DiscontinuityErrors() const { return discontinuity_errors_; }

  // Nanoseconds from peak to peak between the PCRs and their places in a stream of constant bit
  // rate (PCR_AC), worst stretch without missing packets.
  double AccuracySpread() const;
  // Nanoseconds from peak to peak between arrivals and PCRs once the frequency offset is taken off
  // (PCR_OJ), worst stretch without a discontinuity.
  double ArrivalSpread() const;
  // How much slower (positive) or faster the PCRs arrive than they count, in parts per million.
  double FrequencyOffsetPpm() const;
  // Bit rate of the transport stream by its PCRs; 0 while unknown.
  double BitRate() const;

 private:
  void Continue(const PcrSample& sample);
  void StartStretch(const PcrSample& sample);
  void CompareWithArrival(const PcrSample& sample);
  void EndAccuracy();
  // Mean over the present stretch without missing packets; none until there are two PCRs.
  std::optional<double> TicksPerByte() const;
  void Regress(double x, double y);

  std::uint64_t count_ = 0;
  PcrSample last_;
  Histogram intervals_;
  std::uint64_t repetition_errors_ = 0;
  std::uint64_t discontinuity_errors_ = 0;

  // PCR against bytes: x is the byte, y the PCR in ticks, both from the stretch's start.
  LineExtent accuracy_;
  std::uint64_t accuracy_first_byte_ = 0;
  std::int64_t accuracy_first_ticks_ = 0;
  double worst_accuracy_ticks_ = 0;
  std::uint64_t rate_bytes_ = 0;  // of the stretches that have ended
  std::int64_t rate_ticks_ = 0;

  // Arrival against PCR: x is the PCR in ns, y the arrival less x.
  LineExtent arrival_;
  std::int64_t ticks_ = 0;  // PCR since the stretch's start, wraps removed
  std::int64_t stretch_arrival_ns_ = 0;
  double rebase_ns_ = 0;  // joins the stretches for plotting
  double last_offset_ns_ = 0;
  double worst_arrival_ns_ = 0;
  // Sums of the regression of y on x within the stretches.
  double n_ = 0, mean_x_ = 0, mean_y_ = 0, xx_ = 0, xy_ = 0;
  double ended_xx_ = 0, ended_xy_ = 0;
};

}  // namespace ipplay::measure
