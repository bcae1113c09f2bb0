// SPDX-License-Identifier: MIT
#include "host/measure/figures/table_intervals.h"

#include "host/base/byte_order.h"

namespace ipplay::measure {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::uint8_t kTableStuffing = 0x72;

// Tables on the PIDs that are theirs.
struct Home {
  std::uint16_t pid;
  std::uint8_t first_table;
  std::uint8_t last_table;
  Indicator indicator;  // of the interval
  std::int64_t limit_ns;
};
// TR 101 290, 5.2.1 to 5.2.3; schedules, BAT and TOT: TS 101 211, 4.4.
constexpr Home kHomes[] = {
    {kPatPid, kTablePat, kTablePat, Indicator::kPat, kSecond / 2},
    {kCatPid, kTableCat, kTableCat, Indicator::kCat, 0},
    {0x10, 0x40, 0x41, Indicator::kNit, 10 * kSecond},
    {0x11, 0x42, 0x42, Indicator::kSdt, 2 * kSecond},
    {0x11, 0x46, 0x46, Indicator::kSdt, 10 * kSecond},
    {0x11, 0x4A, 0x4A, Indicator::kSiRepetition, 10 * kSecond},
    {kEitPid, 0x4E, 0x4E, Indicator::kEit, 2 * kSecond},
    {kEitPid, 0x4F, 0x4F, Indicator::kEit, 10 * kSecond},
    {kEitPid, 0x50, 0x6F, Indicator::kSiRepetition, 30 * kSecond},
    {0x13, 0x71, 0x71, Indicator::kRst, 0},
    {0x14, 0x70, 0x70, Indicator::kTdt, 30 * kSecond},
    {0x14, 0x73, 0x73, Indicator::kSiRepetition, 30 * kSecond},
};

const Home* HomeOf(std::uint16_t pid, std::uint8_t table_id) {
  for (const Home& home : kHomes) {
    if (home.pid == pid && table_id >= home.first_table && table_id <= home.last_table) {
      return &home;
    }
  }
  return nullptr;
}

TableKey KeyOf(std::uint16_t pid, Section section) {
  TableKey key{.pid = pid, .table_id = section[0]};
  if (key.table_id == kTablePmt || key.table_id == kTableEitActual) {
    key.extension = LoadBe16(&section[3]);
  }
  if (key.table_id == kTableEitActual) {
    key.section = section[6];
  }
  return key;
}

}  // namespace

bool TableIntervals::Belongs(std::uint16_t pid, std::uint8_t table_id) {
  const bool may_stuff = pid >= 0x10;
  return HomeOf(pid, table_id) != nullptr || (may_stuff && table_id == kTableStuffing);
}

Indicator TableIntervals::IndicatorOf(std::uint16_t pid) {
  for (const Home& home : kHomes) {
    if (home.pid == pid) {
      return home.indicator;
    }
  }
  return Indicator::kSiRepetition;
}

TableState* TableIntervals::StateOf(const TableKey& key, std::int64_t now_ns) {
  if (const auto found = tables_.find(key); found != tables_.end()) {
    return &found->second;
  }
  if (tables_.size() == kMaxTables) {
    ++left_out_;
    return nullptr;
  }
  TableState& state = tables_[key];
  state.last_ns = now_ns;
  if (key.table_id == kTablePmt) {
    state.indicator = Indicator::kPmt;
    state.limit_ns = kSecond / 2;
  } else if (const Home* home = HomeOf(key.pid, key.table_id)) {
    state.indicator = home->indicator;
    state.limit_ns = home->limit_ns;
  }
  return &state;
}

void TableIntervals::Expect(const TableKey& key, std::int64_t now_ns) {
  StateOf(key, now_ns);
}

void TableIntervals::Forget(const TableKey& key) {
  tables_.erase(key);
}

void TableIntervals::Add(std::uint16_t pid, Section section, std::int64_t now_ns,
                         IndicatorLog& log) {
  const TableKey key = KeyOf(pid, section);
  TableState* state = StateOf(key, now_ns);
  if (state == nullptr) {
    return;
  }
  log.Measure(state->indicator);
  const std::int64_t interval_ns = now_ns - state->last_ns;
  if (state->limit_ns > 0 && interval_ns > state->limit_ns && !state->overdue) {
    log.Count(state->indicator, {now_ns, pid, interval_ns, key.table_id});
  }
  if (state->sections > 0) {
    state->intervals.Add(interval_ns);
  }
  ++state->sections;
  state->last_ns = now_ns;
  state->overdue = false;
  if ((section[1] & 0x80) != 0) {
    state->version = (section[5] >> 1) & 0x1F;
  }
  if (key.table_id == kTableEitActual && key.section <= 1) {
    // The present event and the one that follows come in a pair [3.6.c].
    TableKey other = key;
    other.section = 1 - key.section;
    Expect(other, now_ns);
  }
}

void TableIntervals::Check(std::int64_t now_ns, bool at_end, IndicatorLog& log) {
  for (auto& [key, state] : tables_) {
    const std::int64_t waited_ns = now_ns - state.last_ns;
    if (state.limit_ns == 0 || waited_ns <= state.limit_ns) {
      continue;
    }
    if (!state.overdue) {
      state.overdue = true;
      log.Count(state.indicator, {now_ns, key.pid, waited_ns, key.table_id});
    }
    if (at_end) {
      state.intervals.Add(waited_ns);
    }
  }
}

}  // namespace ipplay::measure
