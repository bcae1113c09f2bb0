// SPDX-License-Identifier: MIT
// Takes some PIDs out of a multiplex: null packets stand for all others, so that every packet keeps
// its place, and PAT and PMT name what is left.
#pragma once

#include <bitset>
#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <vector>

#include "host/stream/psi_tables.h"

namespace ipplay {

class PidFilter {
 public:
  explicit PidFilter(std::set<std::uint16_t> pids);

  // Whether the packet stays, which may be rewritten in place. Kept are the PIDs, what their PMTs
  // name as keys of access systems, and PCRs: those on another PID in packets with nothing else. A
  // programme is kept if one of its streams, its PMT or its PCRs are among the PIDs.
  bool Keeps(std::uint8_t* packet);

  // PIDs of packets, and those that PMTs name, so far.
  const std::set<std::uint16_t>& Known() const { return known_; }

 private:
  static constexpr std::size_t kPids = 8192;

  struct Program {
    std::uint16_t pmt_pid = 0;
    std::uint16_t pcr_pid = kPidMask;
    std::vector<std::uint8_t> pmt;  // as it leaves; empty until the first one has come
    std::vector<std::uint16_t> keys;
    bool is_kept = false;
  };
  struct PmtPid {
    measure::SectionAssembler sections;
    SectionPackets packets;
  };

  void TakePat(measure::Section section);
  void TakePmt(std::uint16_t pid, measure::Section section);
  void Decide();
  void AddPat();

  std::set<std::uint16_t> pids_;
  std::set<std::uint16_t> known_;
  std::bitset<kPids> seen_;
  std::map<std::uint16_t, Program> programs_;  // by number
  std::map<std::uint16_t, PmtPid> pmt_pids_;
  measure::SectionAssembler pat_;
  SectionPackets pat_packets_;
  std::uint16_t stream_id_ = 0;         // of the PAT
  std::uint8_t pat_version_ = 0;        // the byte with reserved bits and current_next_indicator
  std::vector<std::uint8_t> sent_pat_;  // the last one
  std::uint8_t added_to_version_ = 0;   // for changes that the stream's own PAT does not have
  std::bitset<kPids> kept_;             // whole packets
  std::bitset<kPids> clocks_;           // packets with nothing but their PCR
};

}  // namespace ipplay
