// SPDX-License-Identifier: MIT
// Faults that the host of a playout has ordered, on their way to datagrams and back as reports.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <span>

#include "ipplayout/playouts.h"
#include "platform/mutex.h"

namespace ipplayout {

// Orders are carried out one after the other, the earliest first. The builder asks once for each
// datagram, and takes the mutex only where the time of an order has come or it was carried out.
class FaultOrders {
 public:
  using Time = std::chrono::nanoseconds;

  static constexpr std::size_t kMost = 4096;  // that wait, and reports that are kept

  // ---- Host; any thread ----

  // False when there are too many.
  bool Add(const IpPlayoutOrder& order);
  std::size_t TakeDone(std::span<IpPlayoutDone> out);
  std::uint64_t Waiting() const { return waiting_.load(std::memory_order_relaxed); }
  std::uint64_t NotReported() const { return not_reported_.load(std::memory_order_relaxed); }

  // ---- Builder ----

  // The order that applies to the datagram due at `due`; null for none. Valid until the next call.
  const IpPlayoutOrder* For(Time due);
  // Reports that the last returned order was carried out on this datagram.
  void Confirm(std::uint64_t datagram, Time due);
  // No datagram follows.
  void Finish();

 private:
  static constexpr std::int64_t kNone = std::numeric_limits<std::int64_t>::max();

  void Report();

  platform::Mutex mutex_;
  std::deque<IpPlayoutOrder> orders_ IPPLAYOUT_GUARDED_BY(mutex_);  // by time; equals as they came
  std::deque<IpPlayoutDone> done_ IPPLAYOUT_GUARDED_BY(mutex_);
  std::atomic<std::int64_t> next_ns_{kNone};  // of the first one; stored under the mutex
  std::atomic<std::uint64_t> waiting_{0};     // the one in hand included
  std::atomic<std::uint64_t> not_reported_{0};

  // The builder's own.
  std::optional<IpPlayoutOrder> in_hand_;
  IpPlayoutDone report_{};  // of the one in hand
};

}  // namespace ipplayout
