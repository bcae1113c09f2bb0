// SPDX-License-Identifier: MIT
// What is done on purpose to each datagram of a playout of the many, beyond what the layers ask of
// the error insertion manager: by order of the host, by chance, and to its payload.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <span>
#include <vector>

#include "ipplayout/playouts.h"
#include "payload/error_insertion_manager.h"
#include "payload/error_schedule.h"
#include "payload/fault_orders.h"
#include "platform/random.h"

namespace ipplayout {

// Belongs to the builder's thread, but for the counts.
class FaultInsertion {
 public:
  using Time = std::chrono::nanoseconds;

  static constexpr std::uint32_t kMostFlips = 1000;  // bits of a datagram

  // `errors` has the layers lose, delay and send wrong checksums. All outlive this object.
  FaultInsertion(FaultOrders& orders, CErrorInsertionManager& errors, platform::Random& random)
      : orders_(orders), errors_(errors), random_(random) {}

  // Before the run. Throws when there is no memory.
  void Configure(const IpPlayoutFaults& faults, bool randomize);

  // Decides about the next datagram, before it is announced to `errors`.
  void Begin(std::uint64_t index, Time due, std::size_t payload_bytes);
  bool IsDuplicated() const { return (what_ & IPPLAYOUT_DID_DUPLICATE) != 0; }
  bool IsCorrupt() const { return !flips_.empty(); }
  // An order that cuts the link: whatever would leave now is lost.
  bool IsLinkDown() const { return is_link_down_; }
  bool ClosesHoles() const { return faults_.ClosesHoles != 0; }
  // Flips the bits that are to be wrong; again, and they are right.
  void Flip(std::span<std::uint8_t> payload) const;

  // What was done to it, as IPPLAYOUT_DID_...
  void End(std::uint64_t index, Time due, std::uint32_t did);
  // No datagram follows.
  void Finish() { orders_.Finish(); }

  // Any thread.
  IpPlayoutFaultCounts Counts() const;

 private:
  bool Happens(double chance);
  bool IsLostByChance();
  std::uint32_t ByChance(std::uint64_t index);
  void Raise(std::uint32_t distance);
  void DrawFlips(std::uint32_t bits, std::size_t payload_bytes);

  FaultOrders& orders_;
  CErrorInsertionManager& errors_;
  platform::Random& random_;
  IpPlayoutFaults faults_{};
  ErrorSchedule duplicates_;
  ErrorSchedule corruptions_;
  bool is_bad_ = false;  // the stream, as TurnsBad says
  bool is_ordered_ = false;
  bool is_link_down_ = false;
  std::uint32_t what_ = 0;            // IPPLAYOUT_DID_... that is to be done
  std::vector<std::uint32_t> flips_;  // bits of the payload
  std::atomic<std::uint64_t> duplicated_{0};
  std::atomic<std::uint64_t> corrupted_{0};
};

}  // namespace ipplayout
