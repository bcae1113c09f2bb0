// SPDX-License-Identifier: MIT
#include "host/stream/stream_tables.h"

#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <array>
#include <utility>

namespace ipplay {
namespace {

std::vector<std::uint8_t> ContentOf(measure::Section section) {
  const auto kept = section.first(section.size() - kCrcBytes);
  std::vector<std::uint8_t> content(kept.begin(), kept.end());
  content[kVersionByte] = 0;
  return content;
}

}  // namespace

void TableCollector::Add(const std::uint8_t* packet) {
  const std::uint16_t pid = ts_get_pid(packet);
  const auto pmt = pmts_.find(pid);
  if ((pid != kPatPid && pmt == pmts_.end()) || ts_get_transporterror(packet)) {
    return;
  }
  std::array<std::uint8_t, TS_SIZE> copy{};
  std::copy_n(packet, copy.size(), copy.begin());
  const auto payload = PayloadOf(copy.data());
  const bool starts = ts_get_unitstart(packet);
  if (pid == kPatPid) {
    return pat_.Push(payload, starts, [this](measure::Section section) { AddPat(section); });
  }
  pmt->second.Push(payload, starts, [this](measure::Section section) {
    ReadPmt(
        section, [&](const PmtHead& head) { Take(head.program, section); },
        [](const PmtStream&) {});
  });
}

void TableCollector::AddPat(measure::Section section) {
  const bool is_pat = ReadPat(section, [this](const PatEntry& entry) {
    if (entry.program != 0) {
      pmts_[entry.pmt_pid];
      found_.pmt_pids.insert(entry.pmt_pid);
    }
  });
  if (is_pat) {
    Take(0, section);
  }
}

void TableCollector::Take(std::uint16_t program, measure::Section section) {
  constexpr std::size_t kNumberByte = 6;
  const auto version = VersionOf(section[kVersionByte]);
  Table& first = found_.first.try_emplace(program, Table{version}).first->second;
  if (first.version == version) {
    first.sections.try_emplace(section[kNumberByte], ContentOf(section));
  }
  Table& last = found_.last.try_emplace(program, Table{version}).first->second;
  if (last.version != version) {
    last = {version};
  }
  last.sections.insert_or_assign(section[kNumberByte], ContentOf(section));
}

void TableCollector::Skip() {
  pat_.Drop();
  for (auto& [pid, sections] : pmts_) {
    sections.Drop();
  }
}

}  // namespace ipplay
