// SPDX-License-Identifier: MIT
// The tables of a stream: whether they are intact, in their place and often enough, and what they
// say.
#pragma once

#include <cstdint>
#include <vector>

#include "host/measure/figures/services.h"
#include "host/measure/figures/table_intervals.h"
#include "host/measure/figures/tr101290.h"

namespace ipplay::measure {

class PsiAnalysis {
 public:
  explicit PsiAnalysis(IndicatorLog& log) : log_(log) {}

  // The stream began: a PAT is required from now on.
  void Start(std::int64_t now_ns);
  // Whether the section changed what the stream's PIDs are for.
  bool Add(std::uint16_t pid, Section section, std::int64_t now_ns);
  void Check(std::int64_t now_ns, bool at_end) { intervals_.Check(now_ns, at_end, log_); }

  const ServiceList& Services() const { return services_; }
  const TableIntervals& Intervals() const { return intervals_; }
  // Gives the memory of all tables back.
  void GiveUp() {
    services_ = {};
    intervals_ = {};
    maps_ = {};
  }

 private:
  // A PMT of a program that the PAT names, where it says.
  bool IsRequiredMap(std::uint16_t pid, Section section) const;
  void RequireMaps(std::int64_t now_ns);

  IndicatorLog& log_;
  ServiceList services_;
  TableIntervals intervals_;
  std::vector<TableKey> maps_;  // PMTs that the present PAT requires
};

}  // namespace ipplay::measure
