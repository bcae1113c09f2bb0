// SPDX-License-Identifier: MIT
#include "transmit/departure_ledger.h"

#include <algorithm>

namespace ipplayout {

DepartureLedger::DepartureLedger(std::size_t frames)
    : capacity_(frames), records_(frames == 0 ? nullptr : new IpPlayoutRecord[frames]) {}

void DepartureLedger::Add(const IpPlayoutRecord& record) {
  const std::uint64_t added = added_.load(std::memory_order_relaxed);
  if (added - taken_.load(std::memory_order_acquire) == capacity_) {
    left_out_.store(left_out_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return;
  }
  records_[added % capacity_] = record;
  added_.store(added + 1, std::memory_order_release);
}

std::size_t DepartureLedger::Take(std::span<IpPlayoutRecord> out) {
  const std::uint64_t taken = taken_.load(std::memory_order_relaxed);
  const std::uint64_t held = added_.load(std::memory_order_acquire) - taken;
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(held, out.size()));
  for (std::size_t i = 0; i < count; ++i) {
    out[i] = records_[(taken + i) % capacity_];
  }
  taken_.store(taken + count, std::memory_order_release);
  return count;
}

}  // namespace ipplayout
