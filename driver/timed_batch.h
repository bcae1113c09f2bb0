// SPDX-License-Identifier: MIT
// When the frames of a batch leave. The system calls are behind BurstSender, so that the timing can
// be tested on a clock that a test sets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "driver/send_queue.h"
#include "platform/deadline_waiter.h"

namespace ipplayout {

using FrameBytes = std::span<const std::uint8_t>;

// Hands frames to the adapter.
class BurstSender {
 public:
  static constexpr std::size_t kMostFrames = 64;

  virtual ~BurstSender() = default;

  // Sends the frames, 1 to kMostFrames of them, in order and back to back. Returns how many of
  // them, from the first on, the adapter took; fewer than given when it refused one, or had not
  // taken it by the time that `waiter` gives up.
  virtual std::size_t SendBurst(std::span<const FrameBytes> frames,
                                const platform::DeadlineWaiter& waiter) = 0;
};

// Sends the whole queue. When `synchronised`, a frame is due at the time of the call plus the
// difference between its time stamp and the first frame's; one whose time stamp goes back behind
// its predecessor's is due at once, since the order holds. Frames that are due together share a
// burst. Returns the bytes of the queue that were sent, frame headers included; no burst begins
// once `waiter` has given up.
std::size_t TransmitTimed(const SendQueue& queue, bool synchronised,
                          platform::DeadlineWaiter& waiter, BurstSender& sender);

}  // namespace ipplayout
