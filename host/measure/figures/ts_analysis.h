// SPDX-License-Identifier: MIT
// A transport stream's health: the indicators of ETSI TR 101 290 that a stream shows as it arrives,
// and what it says that it carries.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "host/measure/figures/event.h"
#include "host/measure/figures/pcr_tracker.h"
#include "host/measure/figures/pid_table.h"
#include "host/measure/figures/psi_analysis.h"
#include "host/measure/figures/tr101290.h"
#include "host/measure/figures/ts_framer.h"

namespace ipplay::measure {

// Everything counted once per stream; the clause of TR 101 290 in brackets.
struct TsCounters {
  std::uint64_t packets = 0;
  std::uint64_t null_packets = 0;
  std::uint64_t scrambled_packets = 0;
  std::uint64_t missing_packets = 0;    // the fewest, by the continuity counters as gaps showed
  std::uint64_t late_packets = 0;       // of the missing ones; they came behind later ones
  std::uint64_t continuity_errors = 0;  // [5.2.1, 1.4]
  std::uint64_t pat_errors = 0;         // table interval, foreign table or scrambled [1.3.a]
  std::uint64_t pmt_errors = 0;         // table interval or scrambled [1.5.a]
  std::uint64_t transport_errors = 0;   // transport_error_indicator set [5.2.2, 2.1]
  std::uint64_t crc_errors = 0;         // in any table [2.2]
  std::uint64_t pts_errors = 0;         // interval above 700 ms [2.5]
};

struct PidFigures {
  std::uint16_t pid = 0;
  std::uint64_t packets = 0;  // 0: it is named by the tables alone
  std::uint64_t continuity_errors = 0;
  const PcrTracker* pcr = nullptr;  // null where the PID has none
};

class TsAnalysis {
 public:
  TsAnalysis() = default;
  // Its parts refer to one another.
  TsAnalysis(const TsAnalysis&) = delete;
  TsAnalysis& operator=(const TsAnalysis&) = delete;

  // Where errors are reported with their time; `stream` goes into the events. Null: nowhere.
  void ReportTo(EventSink* sink, std::uint32_t stream) { log_.ReportTo(sink, stream); }

  // The payload of a datagram that arrived at `arrival_ns`. `after_gap` says that part of the
  // stream is known to be missing or out of place before it.
  void Add(std::span<const std::uint8_t> payload, std::int64_t arrival_ns, bool after_gap);
  // A payload of `bytes` came, and cannot be read: nothing is judged across it.
  void SkipUnread(std::size_t bytes, std::int64_t arrival_ns);
  // Counts what is overdue at the end of the measurement, which may be later than the last payload.
  void Finish(std::int64_t end_ns);
  // Gives the memory of all PIDs and tables back. What has been counted stays, and nothing more is.
  void GiveUp();
  bool HasGivenUp() const { return given_up_; }

  bool IsTransportStream() const { return framer_.WasEverSynced(); }
  const TsFramer& Framer() const { return framer_; }
  TsCounters Counters() const;
  const IndicatorLog& Indicators() const { return log_; }
  // Sum of the first priority indicators and of the transport errors.
  std::uint64_t Errors() const;
  // In the order in which the PIDs appeared.
  std::vector<PidFigures> Pids() const;
  // In the order in which the PIDs appeared.
  std::span<const PidState> PidStates() const { return pids_.All(); }
  const ServiceList& Services() const { return psi_.Services(); }
  const TableIntervals& Tables() const { return psi_.Intervals(); }
  // The clock of the first PID that carried one; null without.
  const PcrTracker* ReferenceClock() const;
  std::optional<std::uint16_t> ReferencePid() const { return reference_pid_; }

  // Bit rate of the 188-byte packets by the reference clock; none while it is not known.
  std::optional<double> PcrRateBps() const;
  // Packets missing by the continuity counters, those that came late not among them.
  std::uint64_t MissingPackets() const { return missing_packets_ - late_packets_; }
  // The same by the steps of the reference clock in a stream of constant rate, to which losses of
  // any length and packets without counters show, too; none where it cannot be known.
  std::optional<std::uint64_t> MissingPacketsByPcr() const;
  // Packets that the last datagram completed: a stream's rate spans the time up to it.
  std::uint64_t LastPackets() const { return packets_ - packets_before_last_; }

  struct PcrOffset {
    std::int64_t arrival_ns;
    double offset_ns;  // as PcrTracker::LastOffset returns it
  };
  // The last one of the reference clock since the last call.
  std::optional<PcrOffset> TakePcrOffset();

 private:
  struct Place {
    std::int64_t arrival_ns;
    std::uint64_t byte_index;  // both in packets of 188 bytes
    std::int64_t byte_offset;
  };
  enum class Order : std::uint8_t { kNext, kRepeated, kLate, kBroken };

  void AddPacket(TsPacket packet, const Place& place);
  void AddDamaged(TsPacket packet);
  Order CheckCounter(PidState& state, TsPacket packet, std::int64_t arrival_ns);
  bool IsExcused(const PidState& state, unsigned missing);
  void CountGap(PidState& state, unsigned missing, std::int64_t arrival_ns);
  void AddPcr(PidState& state, TsPacket packet, const Place& place);
  void Count(const PcrFaults& faults, std::uint16_t pid, std::int64_t time_ns);
  void AddScrambled(const PidState& state, TsPacket packet, std::int64_t arrival_ns);
  void AddSections(PidState& state, TsPacket packet, Order order, std::int64_t arrival_ns);
  void AddPts(PidState& state, TsPacket packet, std::int64_t arrival_ns);
  // What the PIDs are for, by the tables.
  void AssignRoles(std::int64_t now_ns);
  static void TakeUp(PidState& state, std::uint8_t before, std::int64_t now_ns);
  void Check(std::int64_t now_ns, bool at_end);
  void CheckPid(PidState& state, std::int64_t now_ns, bool at_end);
  void CheckCat(std::int64_t now_ns, bool at_end);
  void LoseSync(std::int64_t now_ns);
  void ForgetCounters();

  IndicatorLog log_;
  PsiAnalysis psi_{log_};
  TsFramer framer_;
  PidTable pids_;
  std::uint64_t packets_ = 0;
  std::uint64_t packets_before_last_ = 0;
  std::uint64_t null_packets_ = 0;
  std::uint64_t scrambled_packets_ = 0;
  std::uint64_t missing_packets_ = 0;
  std::uint64_t late_packets_ = 0;
  std::uint16_t damaged_ = 0;           // packets with wrong sync bytes or transport errors
  std::uint64_t damaged_unplaced_ = 0;  // of them, such as may be missing on any PID
  std::uint64_t byte_index_ = 0;        // of the next payload's first byte
  std::uint32_t epoch_ = 0;
  bool started_ = false;
  bool finished_ = false;
  bool given_up_ = false;
  std::int64_t last_ns_ = 0;
  std::int64_t next_check_ns_ = 0;
  std::int64_t scrambled_since_ns_ = 0;
  std::uint64_t scrambled_checked_ = 0;  // scrambled_packets_ at the last check
  bool cat_overdue_ = false;
  std::optional<std::uint16_t> reference_pid_;
  std::optional<PcrOffset> pcr_offset_;
};

}  // namespace ipplay::measure
