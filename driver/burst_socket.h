// SPDX-License-Identifier: MIT
// Sending bursts of frames through a packet socket.
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "driver/departure_stamps.h"
#include "driver/patience.h"
#include "driver/timed_batch.h"

namespace ipplayout {

// One system call per burst and no allocation. A full device queue is waited for; an adapter that
// takes nothing for as long as `patience`, or any other error, counts as refusing the frame. What
// follows is not waited for until a frame is taken again, so that a stream keeps its time.
// A waiter that gives up ends the wait as well.
class BurstSocket final : public BurstSender {
 public:
  struct Outcome {
    std::size_t sent = 0;  // from the first on
    // System error number of the frame behind them; ECANCELED where the waiter gave up. 0: all
    // sent.
    int error = 0;
    int calls = 0;  // more than one where something came between
  };

  // `descriptor` stays the caller's, and so do `stamps`, if any, of the same socket.
  explicit BurstSocket(int descriptor, std::chrono::nanoseconds patience = std::chrono::seconds(1),
                       DepartureStamps* stamps = nullptr);
  BurstSocket(const BurstSocket&) = delete;
  BurstSocket& operator=(const BurstSocket&) = delete;

  std::size_t SendBurst(std::span<const FrameBytes> frames,
                        const platform::DeadlineWaiter& waiter) override;
  // The same with the reason; tags[i] is that of frames[i], for its departure stamp, 0 for none.
  // Without tags there are no stamps.
  Outcome Send(std::span<const FrameBytes> frames, std::span<const std::uint32_t> tags,
               const platform::DeadlineWaiter& waiter);

  // How often there was no room. Any thread.
  std::uint64_t Waits() const { return waits_.load(std::memory_order_relaxed); }
  // The error of the last burst, 0 when all of it was sent, and from then on 0.
  int TakeError() { return std::exchange(error_, 0); }

 private:
  int SendOnce(std::size_t first, std::size_t count, std::span<const std::uint32_t> tags);
  bool WaitForRoom(int error, Patience& patience) const;

  const int descriptor_;
  const std::chrono::nanoseconds patience_;
  DepartureStamps* const stamps_;
  std::array<iovec, kMostFrames> bytes_{};
  std::array<mmsghdr, kMostFrames> messages_{};
  std::atomic<std::uint64_t> waits_{0};
  int error_ = 0;
  bool patience_is_used_up_ = false;
};

}  // namespace ipplayout
