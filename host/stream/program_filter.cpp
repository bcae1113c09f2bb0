// SPDX-License-Identifier: MIT
#include "host/stream/program_filter.h"

#include <bitstream/mpeg/ts.h>

#include <array>

#include "host/base/byte_order.h"

namespace ipplay {

bool ProgramFilter::Keeps(std::uint8_t* packet) {
  const std::uint16_t pid = ts_get_pid(packet);
  if (ts_get_transporterror(packet)) {
    return kept_[pid];
  }
  if (pid == kPatPid) {
    pat_.Push(PayloadOf(packet), ts_get_unitstart(packet),
              [this](measure::Section section) { TakePat(section); });
    return ReplacePat(packet);
  }
  if (pid == pmt_pid_) {
    pmt_.Push(PayloadOf(packet), ts_get_unitstart(packet),
              [this](measure::Section section) { TakePmt(section); });
  }
  return kept_[pid];
}

void ProgramFilter::TakePat(measure::Section section) {
  ReadPat(section, [&](const PatEntry& entry) {
    if (entry.program != 0) {
      programs_.insert(entry.program);
    }
    if (entry.program != program_ || entry.program == 0) {
      return;
    }
    stream_id_ = measure::LoadBe16(&section[3]);
    pat_version_ = section[5];
    if (pmt_pid_ != entry.pmt_pid) {
      pmt_.Drop();
      kept_.reset();
      kept_.set(entry.pmt_pid);
      pmt_pid_ = entry.pmt_pid;
    }
  });
}

// One packet for each one that starts a section; it holds the whole table.
bool ProgramFilter::ReplacePat(std::uint8_t* packet) {
  if (!pmt_pid_ || !ts_get_unitstart(packet)) {
    return false;
  }
  const std::array entries{PatEntry{program_, *pmt_pid_}};
  pat_packets_.Add(MakePat(stream_id_, pat_version_, entries));
  return pat_packets_.Write(packet, kPatPid);
}

void ProgramFilter::TakePmt(measure::Section section) {
  bool is_ours = false;
  const auto keep = [this](std::uint16_t pid) { kept_.set(pid); };
  ReadPmt(
      section,
      [&](const PmtHead& head) {
        is_ours = head.program == program_;
        if (!is_ours) {
          return;
        }
        kept_.reset();
        kept_.set(*pmt_pid_);
        if (head.pcr_pid != kPidMask) {
          kept_.set(head.pcr_pid);
        }
        ForEachKeyPid(head, keep);
      },
      [&](const PmtStream& stream) {
        if (is_ours) {
          kept_.set(stream.pid);
          ForEachKeyPid(stream, keep);
        }
      });
}

}  // namespace ipplay
