// SPDX-License-Identifier: MIT
// The tables of a stream that lead to its programmes, as they are at its beginning and at its end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "host/measure/figures/psi_section.h"
#include "host/stream/psi_tables.h"

namespace ipplay {

struct Table {
  std::uint8_t version = 0;
  std::map<std::uint8_t, std::vector<std::uint8_t>>
      sections{};  // by number: all but version and check bytes
};

// A PMT by the number of its programme; the PAT has the number 0, which no programme has.
using Tables = std::map<std::uint16_t, Table>;

struct StreamTables {
  Tables first{};
  Tables last{};
  std::set<std::uint16_t> pmt_pids{};
};

// Takes the tables out of packets.
class TableCollector {
 public:
  void Add(const std::uint8_t* packet);
  // Packets were left out here.
  void Skip();

  const StreamTables& Found() const { return found_; }

 private:
  void AddPat(measure::Section section);
  void Take(std::uint16_t program, measure::Section section);

  StreamTables found_;
  measure::SectionAssembler pat_;
  std::map<std::uint16_t, measure::SectionAssembler> pmts_;  // by PID
};

}  // namespace ipplay
