// SPDX-License-Identifier: MIT
// The bit rate of a transport stream by its own program clock references (PCRs).
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "host/stream/pcr.h"

namespace ipplay {

// The PCRs of one PID.
struct PcrRate {
  std::uint16_t pid = 0;
  double packets_per_second = 0;  // mean over all that lies between PCRs of unbroken time
  double lowest = 0;              // of the one-second stretches; equal to the mean where the
  double highest = 0;             // stream is shorter
  std::uint64_t discontinuities = 0;
  std::uint64_t wraps = 0;
  std::uint64_t first_packet = 0;  // index of the packet with the first PCR, and that PCR
  std::uint64_t first_pcr = 0;
  std::uint64_t last_packet = 0;
  std::uint64_t last_pcr = 0;

  // Beyond what rounding of packet positions can do to a constant rate.
  bool IsVariable() const { return highest > lowest * 1.05; }
  // The time of `packets` packets at the mean rate, in 27 MHz ticks.
  std::uint64_t TicksOfStretch(std::uint64_t packets) const;
  // The time that a round of `packets` packets takes in the stream's own clock, modulo its wrap:
  // from the clock's reading at the first packet to the one behind the last.
  std::uint64_t TicksOf(std::uint64_t packets) const;
};

// Collects PCRs packet by packet. PCRs wrap after 26.5 h; at a jump, or at a PCR that is
// announced as a discontinuity, counting restarts without the bytes in between.
class PcrRateMeter {
 public:
  // `packet` is the transport packet with the given index, counted from 0, in any order of PIDs.
  void Add(std::uint64_t index, const std::uint8_t* packet);
  // The packets up to the next one that is added are not looked at. Their time counts where it fits
  // the rate before it.
  void Skip();

  // The rate by the PCRs of `pid`, or by default of the PID whose PCRs cover the most packets. None
  // with fewer than two PCRs of unbroken time.
  std::optional<PcrRate> Rate(std::optional<std::uint16_t> pid = std::nullopt) const;

  // Time covered so far by the PID that Rate() would choose, in seconds.
  double SecondsCovered() const;

 private:
  struct Clock {
    PcrRate rate;
    std::uint64_t covered_packets = 0;
    std::uint64_t covered_ticks = 0;
    std::uint64_t stretch_packets = 0;  // since the last one-second stretch was full
    std::uint64_t stretch_ticks = 0;
    bool skipped = false;  // since the last PCR, packets were not looked at
  };

  static void Advance(Clock& clock, std::uint64_t index, std::uint64_t pcr, bool announced);
  static void AdvanceOverSkipped(Clock& clock, std::uint64_t packets, std::uint64_t ticks);
  static bool IsJump(const Clock& clock, std::uint64_t packets, std::uint64_t ticks);
  static void AddToStretch(Clock& clock, std::uint64_t packets, std::uint64_t ticks);
  const Clock* Best() const;

  std::map<std::uint16_t, Clock> clocks_;
};

}  // namespace ipplay
