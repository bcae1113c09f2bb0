// SPDX-License-Identifier: MIT
// What became of each frame, for whoever asks.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "ipplayout/playouts.h"

namespace ipplayout {

// A ring of fixed size. The transmitter adds; one thread at a time takes. A full one counts what it
// has no room for and keeps what it has.
class DepartureLedger {
 public:
  // Room for `frames` records; 0 keeps none and counts none.
  explicit DepartureLedger(std::size_t frames);

  bool IsKept() const { return capacity_ != 0; }
  void Add(const IpPlayoutRecord& record);
  // The oldest records; returns how many.
  std::size_t Take(std::span<IpPlayoutRecord> out);
  std::uint64_t LeftOut() const { return left_out_.load(std::memory_order_relaxed); }

 private:
  const std::size_t capacity_;
  const std::unique_ptr<IpPlayoutRecord[]> records_;
  alignas(64) std::atomic<std::uint64_t> added_{0};
  std::atomic<std::uint64_t> left_out_{0};
  alignas(64) std::atomic<std::uint64_t> taken_{0};
};

}  // namespace ipplayout
