// SPDX-License-Identifier: MIT
// Puts RTP payloads back into the order of their sequence numbers, as a receiver does before it
// looks into them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "host/measure/figures/rtp_sequence.h"

namespace ipplay::measure {

// How long a missing packet is waited for: until one comes whose number is so many ahead, or for
// this time from the first packet behind it.
struct ReorderLimits {
  std::uint16_t packets = 32;  // 1: no wait
  std::int64_t longest_wait_ns = 100'000'000;
};

class ReorderWindow {
 public:
  struct Payload {
    std::span<const std::uint8_t> bytes;
    std::int64_t arrival_ns = 0;
    std::uint32_t unread_bytes = 0;  // instead of bytes, of a payload that was not captured whole
    std::uint16_t number = 0;        // of what is delivered
  };
  // `after_gap`: what stands before the payload is missing.
  using Deliver = std::function<void(const Payload& payload, bool after_gap)>;

  explicit ReorderWindow(Deliver deliver, const ReorderLimits& limits = {})
      : deliver_(std::move(deliver)), limits_(limits) {}

  // Delivers what is next, and keeps a copy of what is ahead. Memory is taken once packets are
  // missing, and then used again. Repeats, and what comes too late to be waited for, go no further.
  void Add(std::uint16_t number, SequenceEvent event, const Payload& payload);
  // Delivers what still waits.
  void Flush();

  // Gives its memory back; no more packets follow.
  void GiveUp();

  // Packets that came behind later ones, and in time to be put in front of them.
  std::uint64_t Repaired() const { return repaired_; }

 private:
  struct Slot {
    bool used = false;
    std::int64_t arrival_ns = 0;
    std::uint32_t unread_bytes = 0;
    std::vector<std::uint8_t> bytes;
  };

  Slot& At(std::uint16_t number) { return slots_[number % slots_.size()]; }
  void Keep(std::uint16_t number, const Payload& payload);
  void Pass(Payload payload, bool after_gap);
  void PassKept(bool after_gap);
  void SkipMissing();
  bool HasWaitedEnough(std::int64_t now_ns) const;

  Deliver deliver_;
  const ReorderLimits limits_;
  // Empty until packets are missing; by number modulo their count, which divides 65536.
  std::vector<Slot> slots_;
  std::size_t kept_ = 0;
  std::uint16_t next_ = 0;  // number that is to be delivered next
  std::int64_t waiting_since_ns_ = 0;
  std::uint64_t repaired_ = 0;
};

}  // namespace ipplay::measure
