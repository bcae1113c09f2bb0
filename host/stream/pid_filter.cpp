// SPDX-License-Identifier: MIT
#include "host/stream/pid_filter.h"

#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <utility>

#include "host/base/byte_order.h"
#include "host/stream/pcr.h"

namespace ipplay {
namespace {

// The counter stands still in packets without payload, and here it never goes on.
void KeepOnlyPcr(std::uint8_t* packet, std::uint64_t pcr) {
  constexpr std::uint8_t kAdaptationOnly = 183;
  const std::uint16_t pid = ts_get_pid(packet);
  const bool jumps = tsaf_has_discontinuity(packet);
  std::fill_n(packet, TS_HEADER_SIZE, std::uint8_t{0});
  std::fill_n(packet + TS_HEADER_SIZE, TS_SIZE - TS_HEADER_SIZE, std::uint8_t{0xFF});
  ts_init(packet);
  ts_set_pid(packet, pid);
  ts_set_adaptation(packet, kAdaptationOnly);
  WritePcr(packet, pcr);
  if (jumps) {
    tsaf_set_discontinuity(packet);
  }
}

}  // namespace

PidFilter::PidFilter(std::set<std::uint16_t> pids) : pids_(std::move(pids)) {
  Decide();
}

bool PidFilter::Keeps(std::uint8_t* packet) {
  const std::uint16_t pid = ts_get_pid(packet);
  if (ts_get_transporterror(packet)) {
    return kept_[pid];
  }
  if (!seen_[pid]) {
    seen_.set(pid);
    known_.insert(pid);
  }
  const bool starts = ts_get_unitstart(packet);
  if (pid == kPatPid) {
    pat_.Push(PayloadOf(packet), starts, [this](measure::Section section) { TakePat(section); });
    if (starts && pat_packets_.IsEmpty()) {
      AddPat();
    }
    return pat_packets_.Write(packet, pid);
  }
  if (const auto found = pmt_pids_.find(pid); found != pmt_pids_.end()) {
    PmtPid& tables = found->second;
    tables.sections.Push(PayloadOf(packet), starts,
                         [&](measure::Section section) { TakePmt(pid, section); });
    if (starts && tables.packets.IsEmpty()) {
      for (const auto& [number, program] : programs_) {
        if (program.pmt_pid == pid && program.is_kept) {
          tables.packets.Add(program.pmt);
        }
      }
    }
    return tables.packets.Write(packet, pid);
  }
  if (clocks_[pid]) {
    const auto pcr = ReadPcr(packet);
    if (pcr) {
      KeepOnlyPcr(packet, *pcr);
    }
    return pcr.has_value();
  }
  return kept_[pid];
}

// A table of several sections comes to the same as one: what is not in the last of a new version is
// left where it is until its PMT no longer comes.
void PidFilter::TakePat(measure::Section section) {
  std::map<std::uint16_t, Program> programs;
  const bool is_pat = ReadPat(section, [&](const PatEntry& entry) {
    if (entry.program == 0) {
      return;
    }
    Program& program = programs[entry.program];
    if (const auto old = programs_.find(entry.program);
        old != programs_.end() && old->second.pmt_pid == entry.pmt_pid) {
      program = old->second;
    }
    program.pmt_pid = entry.pmt_pid;
  });
  constexpr std::size_t kLastSectionByte = 7;
  if (!is_pat) {
    return;
  }
  if (section[kLastSectionByte] != 0) {
    programs.merge(programs_);
  }
  programs_ = std::move(programs);
  stream_id_ = measure::LoadBe16(&section[3]);
  pat_version_ = section[kVersionByte];
  std::bitset<kPids> used;
  for (const auto& [number, program] : programs_) {
    used.set(program.pmt_pid);
    pmt_pids_[program.pmt_pid];
  }
  std::erase_if(pmt_pids_, [&used](const auto& entry) { return !used[entry.first]; });
  Decide();
}

void PidFilter::TakePmt(std::uint16_t pid, measure::Section section) {
  Program* program = nullptr;
  const auto add_key = [&](std::uint16_t key) { program->keys.push_back(key); };
  ReadPmt(
      section,
      [&](const PmtHead& head) {
        const auto found = programs_.find(head.program);
        if (found == programs_.end() || found->second.pmt_pid != pid) {
          return;
        }
        program = &found->second;
        program->pcr_pid = head.pcr_pid;
        program->pmt.assign(head.bytes.begin(), head.bytes.end());
        program->is_kept = pids_.contains(pid) || pids_.contains(head.pcr_pid);
        program->keys.clear();
        ForEachKeyPid(head, add_key);
      },
      [&](const PmtStream& stream) {
        if (program == nullptr) {
          return;
        }
        known_.insert(stream.pid);
        if (pids_.contains(stream.pid)) {
          program->is_kept = true;
          program->pmt.insert(program->pmt.end(), stream.bytes.begin(), stream.bytes.end());
          ForEachKeyPid(stream, add_key);
        }
      });
  if (program != nullptr) {
    CloseSection(program->pmt);
    Decide();
  }
}

// What is kept of each PID.
void PidFilter::Decide() {
  kept_.reset();
  clocks_.reset();
  for (const std::uint16_t pid : pids_) {
    kept_.set(pid);
  }
  for (const auto& [number, program] : programs_) {
    if (!program.is_kept) {
      continue;
    }
    for (const std::uint16_t key : program.keys) {
      kept_.set(key);
    }
    if (program.pcr_pid != kPidMask && !kept_[program.pcr_pid]) {
      clocks_.set(program.pcr_pid);
    }
  }
}

// A receiver looks at a table again only where its version is new.
void PidFilter::AddPat() {
  constexpr std::size_t kMostEntries = 253;  // of a section: ISO/IEC 13818-1, 2.4.4.5
  std::vector<PatEntry> entries;
  for (const auto& [number, program] : programs_) {
    if (program.is_kept && entries.size() < kMostEntries) {
      entries.push_back({number, program.pmt_pid});
    }
  }
  if (entries.empty()) {
    return;
  }
  auto pat = MakePat(stream_id_, WithVersion(pat_version_, added_to_version_), entries);
  if (!sent_pat_.empty() && pat != sent_pat_ && pat[kVersionByte] == sent_pat_[kVersionByte]) {
    ++added_to_version_;
    pat = MakePat(stream_id_, WithVersion(pat_version_, added_to_version_), entries);
  }
  pat_packets_.Add(pat);
  sent_pat_ = std::move(pat);
}

}  // namespace ipplay
