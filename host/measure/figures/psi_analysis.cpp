// SPDX-License-Identifier: MIT
#include "host/measure/figures/psi_analysis.h"

#include <algorithm>
#include <utility>

#include "host/base/byte_order.h"

namespace ipplay::measure {
namespace {

constexpr std::uint16_t kLastSiPid = 0x0014;

// Time and date, stuffing and running status have a short header, EN 300 468, 5.2.
bool MayBeShort(std::uint8_t table_id) {
  return table_id >= 0x70 && table_id <= 0x73;
}

}  // namespace

void PsiAnalysis::Start(std::int64_t now_ns) {
  intervals_.Expect({.pid = kPatPid, .table_id = kTablePat}, now_ns);
}

bool PsiAnalysis::Add(std::uint16_t pid, Section section, std::int64_t now_ns) {
  log_.Measure(Indicator::kCrc);
  const std::uint8_t table_id = section[0];
  if (!IsIntact(section)) {
    log_.Count(Indicator::kCrc, {now_ns, pid, table_id});
    return false;
  }
  const bool has_home = pid <= kLastSiPid;
  if (has_home && !TableIntervals::Belongs(pid, table_id)) {
    log_.Count(TableIntervals::IndicatorOf(pid), {now_ns, pid, 0, table_id});
    return false;
  }
  const bool is_long = (section[1] & 0x80) != 0;
  if ((!is_long && !MayBeShort(table_id)) || (!has_home && !IsRequiredMap(pid, section))) {
    return false;
  }
  intervals_.Add(pid, section, now_ns, log_);
  if (!is_long) {
    return false;
  }
  if (table_id == kTablePat && services_.TakePat(section)) {
    RequireMaps(now_ns);
    return true;
  }
  if (table_id == kTableSdtActual) {
    services_.TakeSdt(section);
  }
  return (table_id == kTablePmt && services_.TakePmt(pid, section)) ||
         (table_id == kTableCat && services_.TakeCat(section));
}

bool PsiAnalysis::IsRequiredMap(std::uint16_t pid, Section section) const {
  const auto program = LoadBe16(&section[3]);
  const auto service = services_.Services().find(program);
  return section[0] == kTablePmt && service != services_.Services().end() &&
         service->second.pmt_pid == pid;
}

void PsiAnalysis::RequireMaps(std::int64_t now_ns) {
  std::vector<TableKey> required;
  for (const auto& [program, service] : services_.Services()) {
    required.push_back({.pid = service.pmt_pid, .table_id = kTablePmt, .extension = program});
    intervals_.Expect(required.back(), now_ns);
  }
  std::ranges::sort(required);
  for (const TableKey& key : maps_) {
    if (!std::ranges::binary_search(required, key)) {
      intervals_.Forget(key);
      // Nor does its service have events any more.
      intervals_.Forget({kEitPid, kTableEitActual, 0, key.extension});
      intervals_.Forget({kEitPid, kTableEitActual, 1, key.extension});
    }
  }
  maps_ = std::move(required);
}

}  // namespace ipplay::measure
