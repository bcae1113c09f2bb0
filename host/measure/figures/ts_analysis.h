// SPDX-License-Identifier: MIT
// A transport stream's health: the first and second priority figures of ETSI TR 101 290 that make
// sense on a stream as it arrives.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "host/measure/figures/pcr_tracker.h"
#include "host/measure/figures/ts_framer.h"

namespace ipplay::measure {

// Everything counted once per stream; the clause of TR 101 290 in brackets.
struct TsCounters {
  std::uint64_t packets = 0;
  std::uint64_t null_packets = 0;
  std::uint64_t continuity_errors = 0;  // [5.2.1, 1.4]
  std::uint64_t missing_packets = 0;    // at least so many, by the continuity counters
  std::uint64_t transport_errors = 0;   // transport_error_indicator set [5.2.2, 2.1]
  std::uint64_t pat_errors = 0;         // table interval, foreign table or scrambled [1.3.a]
  std::uint64_t pmt_errors = 0;         // table interval or scrambled [1.5.a]
  std::uint64_t crc_errors = 0;         // in PAT and PMT [2.2]
  std::uint64_t pts_errors = 0;         // interval above 700 ms [2.5]
  std::uint64_t scrambled_packets = 0;
};

struct PidFigures {
  std::uint16_t pid = 0;
  std::uint64_t packets = 0;
  std::uint64_t continuity_errors = 0;
  const PcrTracker* pcr = nullptr;  // null where the PID carries none
};

class TsAnalysis {
 public:
  // PIDs beyond these many are counted in the sums, but not one by one.
  static constexpr std::size_t kMaxPids = 255;

  TsAnalysis();

  // The payload of a datagram that arrived at `arrival_ns`. `after_gap` says that part of the
  // stream is known to be missing or out of place before it.
  void Add(std::span<const std::uint8_t> payload, std::int64_t arrival_ns, bool after_gap);
  // Counts what is overdue at the end of the measurement.
  void Finish(std::int64_t end_ns);

  bool IsTransportStream() const { return framer_.WasEverSynced(); }
  const TsFramer& Framer() const { return framer_; }
  const TsCounters& Counters() const { return counters_; }
  // Sum of the first priority figures and of the transport errors.
  std::uint64_t Errors() const;
  // In the order in which the PIDs appeared.
  std::vector<PidFigures> Pids() const;
  // The clock of the first PID that carried one; null without.
  const PcrTracker* ReferenceClock() const;

  struct PcrOffset {
    std::int64_t arrival_ns;
    double offset_ns;  // as PcrTracker::Add returns it
  };
  // The last one of the reference clock since the last call.
  std::optional<PcrOffset> TakePcrOffset();

 private:
  struct PidState {
    explicit PidState(std::uint16_t number) : pid(number) {}

    std::uint16_t pid;
    std::uint8_t last_counter = 0;
    bool counter_known = false;
    bool repeated = false;  // the last packet repeated the counter before, which may happen once
    bool is_pmt = false;
    std::int64_t table_ns = 0;  // last PAT or PMT section
    std::int64_t pts_ns = -1;   // last PTS
    std::uint64_t packets = 0;
    std::uint64_t continuity_errors = 0;
    std::unique_ptr<PcrTracker> pcr;
  };

  struct Place {
    std::int64_t arrival_ns;
    std::uint64_t byte_index;
    std::ptrdiff_t byte_offset;
  };

  void AddPacket(TsPacket packet, const Place& place);
  PidState* StateOf(std::uint16_t pid);
  void CheckContinuity(PidState& state, TsPacket packet, bool discontinuity);
  void AddPcr(PidState& state, TsPacket packet, const Place& place, bool discontinuity);
  void AddPayload(PidState& state, std::span<const std::uint8_t> payload, std::int64_t arrival_ns);
  void AddSection(PidState& state, std::span<const std::uint8_t> payload, std::int64_t arrival_ns);
  void MarkProgramMaps(std::span<const std::uint8_t> section, std::int64_t arrival_ns);

  TsFramer framer_;
  TsCounters counters_;
  std::vector<PidState> pids_;  // grows in StateOf, which ends the life of references into it
  std::array<std::uint8_t, 8192> index_{};  // place in pids_ plus 1; 0 for none
  std::uint64_t byte_index_ = 0;            // of the next payload's first byte
  std::uint32_t epoch_ = 0;
  bool started_ = false;
  std::int64_t first_ns_ = 0;
  std::int64_t last_ns_ = 0;
  std::int64_t pat_ns_ = 0;
  std::uint16_t reference_pid_ = 0;
  bool has_reference_ = false;
  std::optional<PcrOffset> pcr_offset_;
};

}  // namespace ipplay::measure
