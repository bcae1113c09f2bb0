// SPDX-License-Identifier: MIT
#include "host/measure/figures/pid_table.h"

namespace ipplay::measure {

PidState& PidTable::Make(std::uint16_t pid) {
  std::uint8_t& page = page_of_[pid / kPageSize];
  if (page == 0) {
    pages_.emplace_back();
    page = static_cast<std::uint8_t>(pages_.size());
  }
  PidState& state = states_.emplace_back();
  state.pid = pid;
  pages_[page - 1U][pid % kPageSize] = static_cast<std::uint16_t>(states_.size());
  return state;
}

}  // namespace ipplay::measure
