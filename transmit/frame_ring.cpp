// SPDX-License-Identifier: MIT
#include "transmit/frame_ring.h"

#include <new>

namespace ipplayout {
namespace {

// Whole cache lines, so that builder and transmitter do not share one.
constexpr std::size_t kLine = 64;

}  // namespace

FrameRing::FrameRing(std::size_t frames, std::size_t longest_frame)
    : frames_(frames),
      stride_((sizeof(QueuedFrame) + longest_frame + kLine - 1) / kLine * kLine),
      slots_(frames_ * stride_) {}

bool FrameRing::HasRoom(std::size_t frames) {
  if (Free() >= frames) {
    return true;
  }
  awaits_room_.store(true);
  // Not for less than half: a builder that is called for each frame costs more than the frames.
  if (Free() < (Capacity() + 1) / 2) {
    return false;
  }
  awaits_room_.store(false);
  return true;
}

bool FrameRing::Push(const QueuedFrame& frame, const std::uint8_t* bytes) {
  const std::uint64_t count = filled_.load(std::memory_order_relaxed);
  std::uint8_t* const slot = SlotAt(count);
  ::new (slot) QueuedFrame(frame);
  std::memcpy(slot + sizeof frame, bytes, frame.length);
  filled_.store(count + 1);
  return awaits_frame_.load() && awaits_frame_.exchange(false);
}

bool FrameRing::ReleaseTaken() {
  if (released_.load(std::memory_order_relaxed) == taken_) {
    return false;
  }
  released_.store(taken_);
  return awaits_room_.load() && Free() >= (Capacity() + 1) / 2 && awaits_room_.exchange(false);
}

bool FrameRing::AwaitFrame() {
  awaits_frame_.store(true);
  if (filled_.load() == taken_) {
    return true;
  }
  awaits_frame_.store(false);
  return false;
}

}  // namespace ipplayout
