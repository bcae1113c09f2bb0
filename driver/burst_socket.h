// SPDX-License-Identifier: MIT
// Sending bursts of frames through a packet socket.
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <span>

#include "driver/patience.h"
#include "driver/timed_batch.h"

namespace ipplayout {

// One system call per burst and no allocation. A full device queue is waited for; an adapter that
// takes nothing for as long as `patience`, or any other error, counts as refusing the frame.
// A waiter that gives up ends the wait as well.
class BurstSocket final : public BurstSender {
 public:
  // `descriptor` stays the caller's.
  explicit BurstSocket(int descriptor, std::chrono::nanoseconds patience = std::chrono::seconds(1));
  BurstSocket(const BurstSocket&) = delete;
  BurstSocket& operator=(const BurstSocket&) = delete;

  std::size_t SendBurst(std::span<const FrameBytes> frames,
                        const platform::DeadlineWaiter& waiter) override;

 private:
  bool WaitForRoom(int error, Patience& patience) const;

  const int descriptor_;
  const std::chrono::nanoseconds patience_;
  std::array<iovec, kMostFrames> bytes_{};
  std::array<mmsghdr, kMostFrames> messages_{};
};

}  // namespace ipplayout
