// SPDX-License-Identifier: MIT
// How often the tables of a stream come: ISO/IEC 13818-1, ETSI EN 300 468, limits of TR 101 290.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>

#include "host/measure/figures/interval_figures.h"
#include "host/measure/figures/psi_section.h"
#include "host/measure/figures/tr101290.h"

namespace ipplay::measure {

inline constexpr std::uint8_t kTablePat = 0x00;
inline constexpr std::uint8_t kTableCat = 0x01;
inline constexpr std::uint8_t kTablePmt = 0x02;
inline constexpr std::uint8_t kTableSdtActual = 0x42;
inline constexpr std::uint8_t kTableEitActual = 0x4E;  // present and following

inline constexpr std::uint16_t kPatPid = 0x0000;
inline constexpr std::uint16_t kCatPid = 0x0001;
inline constexpr std::uint16_t kEitPid = 0x0012;

// What is repeated: a table, of the PMT that of a program, of the EIT each section of a service.
struct TableKey {
  std::uint16_t pid = 0;
  std::uint8_t table_id = 0;
  std::uint8_t section = 0;
  std::uint16_t extension = 0;  // program or service; 0 for the others

  auto operator<=>(const TableKey&) const = default;
};

struct TableState {
  Indicator indicator = Indicator::kSiRepetition;
  std::int64_t limit_ns = 0;  // 0: none
  std::uint8_t version = 0;
  std::uint64_t sections = 0;
  IntervalFigures intervals;
  std::int64_t last_ns = 0;  // or when it was promised
  bool overdue = false;
};

class TableIntervals {
 public:
  // A stream with more is hostile; what is beyond is counted.
  static constexpr std::size_t kMaxTables = 2048;

  // Whether a PID that EN 300 468, 5.1.3 or ISO/IEC 13818-1 gives to a table may carry another.
  static bool Belongs(std::uint16_t pid, std::uint8_t table_id);
  // The indicator of such a PID.
  static Indicator IndicatorOf(std::uint16_t pid);

  // The table is required from now on.
  void Expect(const TableKey& key, std::int64_t now_ns);
  // It is required no more.
  void Forget(const TableKey& key);
  void Add(std::uint16_t pid, Section section, std::int64_t now_ns, IndicatorLog& log);
  // One error for each time without the table. At the end that time counts as an interval, too.
  void Check(std::int64_t now_ns, bool at_end, IndicatorLog& log);

  const std::map<TableKey, TableState>& Tables() const { return tables_; }
  std::uint64_t LeftOut() const { return left_out_; }

 private:
  TableState* StateOf(const TableKey& key, std::int64_t now_ns);

  std::map<TableKey, TableState> tables_;
  std::uint64_t left_out_ = 0;
};

}  // namespace ipplay::measure
