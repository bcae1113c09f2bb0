// SPDX-License-Identifier: MIT
// Sending bursts of frames through an AF_XDP socket.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "driver/timed_batch.h"
#include "driver/xdp_rings.h"

namespace ipplayout {

// Sends on the adapter's first queue and takes nothing that the adapter receives: no XDP program is
// loaded, and the socket is bound in copy mode, since in zero-copy mode most adapters would hand it
// the queue's whole receive side. Copy mode needs no more rights than a packet socket.
//
// Only what the adapter has taken for certain counts as sent. Whatever keeps a frame from leaving
// (too long, adapter down or gone, link lost), that frame and the rest of the burst go to the
// packet socket: what it then waits for, sends or refuses is the result.
class XdpSender final : public BurstSender {
 public:
  // Null when the kernel, the adapter or its present user does not allow it. `rest` and
  // `packet_socket` belong to the same adapter and outlive the sender.
  static std::unique_ptr<XdpSender> Open(
      unsigned interface_index, BurstSender& rest, int packet_socket,
      std::chrono::nanoseconds patience = std::chrono::seconds(1));

  std::size_t SendBurst(std::span<const FrameBytes> frames,
                        const platform::DeadlineWaiter& waiter) override;

  // How often there was no room, but for waits of `rest`. Any thread.
  std::uint64_t Waits() const { return waits_.load(std::memory_order_relaxed); }

 private:
  // The most that the kernel sends in one call, in copy mode.
  static constexpr std::size_t kFramesPerCall = 32;

  struct Outcome {
    std::size_t sent = 0;
    bool certain = true;  // else more than `sent` may have left
  };

  XdpSender(unsigned interface_index, BurstSender& rest, int packet_socket,
            std::chrono::nanoseconds patience);

  bool CanCarry(std::span<const FrameBytes> frames) const;
  std::size_t AdapterMtu() const;
  Outcome SendPart(std::span<const FrameBytes> frames, const platform::DeadlineWaiter& waiter);
  Outcome TakeBack(std::size_t count, bool last_was_dropped);

  std::unique_ptr<XdpRings> rings_;
  const unsigned interface_index_;
  BurstSender& rest_;
  const int packet_socket_;
  const std::chrono::nanoseconds patience_;
  bool usable_ = true;
  std::atomic<std::uint64_t> waits_{0};
};

}  // namespace ipplayout
