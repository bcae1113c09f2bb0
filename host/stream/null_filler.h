// SPDX-License-Identifier: MIT
// Gives a stream a constant bit rate of the user's choice without changing its speed: null packets
// fill it up, those that it has make room, and PCRs say where their packets have come to stand.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "host/stream/packet_format.h"
#include "host/stream/pcr_marks.h"

namespace ipplay {

struct FillPlan {
  std::uint16_t pcr_pid = 0;          // whose PCRs say when packets are due
  double own_packets_per_second = 0;  // on average
  double packets_per_second = 0;      // as it is to be
};

// The stream becomes a row of slots at even distances. A packet gets the first free slot at or
// behind its time, which lies on a line between two PCRs; each PCR grows by the way that its packet
// has moved. Where the stream's own rate is above the row's for a while, packets wait.
class NullFiller {
 public:
  using Bytes = std::span<const std::uint8_t>;
  // False ends the run.
  using Emit = std::function<bool(Bytes)>;

  NullFiller(PacketFormat format, const FillPlan& plan);

  // Takes whole packets and emits what is known of their slots: all that lies before a PCR.
  bool Run(Bytes packets, const Emit& emit);
  // The PCRs that follow are those of another PID, on the same clock.
  void Follow(std::uint16_t pid) { marks_.Follow(pid); }
  // The rest, at the end of the stream.
  bool Finish(const Emit& emit);

  // The longest that a packet has waited for its slot. For any thread.
  std::chrono::nanoseconds LongestWait() const {
    return std::chrono::nanoseconds(longest_wait_ns_.load(std::memory_order_relaxed));
  }

 private:
  bool PlaceHeld(std::size_t end, double gap_ns, const Emit& emit);
  bool Place(const std::uint8_t* packet, double time_ns, const Emit& emit);
  void AddNull();
  void Move(std::uint8_t* packet, double wait_ns);
  bool EmitAll(const Emit& emit);

  const PacketFormat format_;
  PcrMarks marks_;
  const double slot_ns_;
  std::vector<std::uint8_t> held_;  // from the packet at time_ns_ on
  std::size_t looked_at_ = 0;       // of it, in whole packets
  double time_ns_ = 0;
  double gap_ns_;            // from packet to packet, of those placed last
  std::uint64_t slot_ = 0;   // the next free one
  std::uint32_t stamp_ = 0;  // arrival time of the last 192-byte packet
  std::vector<std::uint8_t> made_;
  std::atomic<std::int64_t> longest_wait_ns_{0};
};

}  // namespace ipplay
