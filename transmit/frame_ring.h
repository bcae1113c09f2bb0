// SPDX-License-Identifier: MIT
// Finished frames of one playout on their way from its builder to the transmitter.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "platform/pages.h"

namespace ipplayout {

struct QueuedFrame {
  std::chrono::nanoseconds due{0};  // since the start of the playout
  std::uint64_t datagram = 0;
  std::uint32_t copy = 0;
  std::uint32_t did = 0;     // IPPLAYOUT_DID_...
  std::uint32_t length = 0;  // of its bytes
  std::uint16_t rtp_sequence = 0;
  bool leaves = true;  // else a place in the schedule from which nothing is sent
};

// A ring of slots of one size. The builder fills, the transmitter takes frames into a burst and
// releases them when the burst has been sent; the two meet in two counters.
//
// Whoever finds the ring full or empty says so in a flag and looks at the counter again; the other
// side moves its counter and then looks at the flag. All four steps are sequentially consistent, so
// one of the two always sees the other.
class FrameRing {
 public:
  // None where there is no memory.
  FrameRing(std::size_t frames, std::size_t longest_frame);

  bool IsAllocated() const { return slots_.Data() != nullptr; }
  std::size_t Capacity() const { return frames_; }

  // ---- Builder ----

  // Room for so many frames. Without it the builder is to be called when half of the ring is free.
  bool HasRoom(std::size_t frames);
  // True when the transmitter waits for it.
  bool Push(const QueuedFrame& frame, const std::uint8_t* bytes);

  // ---- Transmitter ----

  // The next frame that is not taken; null when there is none.
  const QueuedFrame* Front() const {
    return taken_ == filled_.load(std::memory_order_acquire) ? nullptr : &HeaderOf(taken_);
  }
  // Of what Front gave; valid until it is released.
  static std::span<const std::uint8_t> BytesOf(const QueuedFrame& frame) {
    return {reinterpret_cast<const std::uint8_t*>(&frame + 1), frame.length};
  }
  void Take() { ++taken_; }
  // The last of the taken frames are to be taken again.
  void PutBack(std::size_t frames) { taken_ -= frames; }
  // Gives the slots of all taken frames back. True when the builder waits for them.
  bool ReleaseTaken();
  // Says that the transmitter waits for a frame. False when there is one after all.
  bool AwaitFrame();
  // Frames that are not taken.
  std::size_t Waiting() const { return filled_.load() - taken_; }

 private:
  std::uint8_t* SlotAt(std::uint64_t count) const {
    return slots_.Data() + count % frames_ * stride_;
  }
  const QueuedFrame& HeaderOf(std::uint64_t count) const {
    return *reinterpret_cast<const QueuedFrame*>(SlotAt(count));
  }
  std::size_t Free() const { return Capacity() - (filled_.load() - released_.load()); }

  const std::size_t frames_;  // not rounded up, for hundreds of rings are most of what a host takes
  const std::size_t stride_;
  const platform::Pages slots_;

  alignas(64) std::atomic<std::uint64_t> filled_{0};  // written by the builder
  std::atomic<bool> awaits_room_{false};
  alignas(64) std::atomic<std::uint64_t> released_{0};  // written by the transmitter
  std::uint64_t taken_ = 0;                             // the transmitter's own
  std::atomic<bool> awaits_frame_{false};
};

}  // namespace ipplayout
