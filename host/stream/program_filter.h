// SPDX-License-Identifier: MIT
// One programme of a multiplex. What belongs to others becomes null packets, so that every packet
// keeps its place and its time; the PAT names the one programme.
#pragma once

#include <bitset>
#include <cstdint>
#include <optional>
#include <set>
#include <span>

#include "host/measure/figures/psi_section.h"
#include "host/stream/psi_tables.h"

namespace ipplay {

class ProgramFilter {
 public:
  explicit ProgramFilter(std::uint16_t program) : program_(program) {}

  // Whether the packet stays, which may be rewritten in place. Kept are the programme's PMT and
  // what it names: elementary streams, PCRs and keys of access systems. Before the first PMT
  // nothing is known of them.
  bool Keeps(std::uint8_t* packet);

  // In the PATs so far.
  const std::set<std::uint16_t>& Programs() const { return programs_; }

 private:
  static constexpr std::size_t kPids = 8192;

  bool ReplacePat(std::uint8_t* packet);
  void TakePat(measure::Section section);
  void TakePmt(measure::Section section);

  std::uint16_t program_;
  std::set<std::uint16_t> programs_;
  measure::SectionAssembler pat_;
  measure::SectionAssembler pmt_;
  std::optional<std::uint16_t> pmt_pid_;
  std::uint16_t stream_id_ = 0;   // of the PAT
  std::uint8_t pat_version_ = 0;  // the byte with reserved bits, version and current_next_indicator
  SectionPackets pat_packets_;
  std::bitset<kPids> kept_;
};

}  // namespace ipplay
