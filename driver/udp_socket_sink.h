// SPDX-License-Identifier: MIT
// A UDP socket as the destination of a schedule.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "driver/burst_socket.h"
#include "driver/departure_stamps.h"
#include "driver/frame_sink.h"
#include "driver/opened.h"
#include "driver/udp_socket.h"
#include "platform/descriptor.h"

namespace ipplayout {

struct UdpSinkSettings {
  UdpSocketSettings socket;
  // Where the UDP payload begins in a frame: what stands before it is not sent.
  std::size_t payload_offset = 42;
  bool stamps = false;  // as of AdapterSinkSettings
  // How long a full queue is waited for in which nothing leaves; 0: not at all (is_full).
  std::chrono::nanoseconds patience = std::chrono::seconds(1);
};

// Sends the UDP payload of each frame; the socket puts its own headers before it. Needs no right.
//
// The error is the frame's own where it is too long (EMSGSIZE), shorter than its headers (EINVAL)
// or held back by a firewall (EPERM). That a receiver is not there, as ICMP messages say, is
// counted and ends nothing.
class UdpSocketSink final : public FrameSink {
 public:
  // In the network namespace of the calling thread.
  static Opened<UdpSocketSink> Open(const UdpSinkSettings& settings);
  UdpSocketSink(const UdpSocketSink&) = delete;
  UdpSocketSink& operator=(const UdpSocketSink&) = delete;

  Result Send(std::span<const OutgoingFrame> frames,
              const platform::DeadlineWaiter& waiter) override;
  const char* Name() const override { return "UDP socket"; }
  std::uint64_t Retries() const override { return sender_.Waits(); }
  std::size_t ReadDepartures(std::span<Departure> out) override;
  int DepartureDescriptor() const override;

  // ICMP messages that said that datagrams did not arrive. With stamps they come with the
  // departures. Any thread.
  std::uint64_t IcmpErrors() const;

 private:
  UdpSocketSink(platform::Descriptor socket, std::unique_ptr<DepartureStamps> stamps,
                const UdpSinkSettings& settings);

  // Without stamps nobody else reads the queue.
  void TakeErrors();

  const platform::Descriptor socket_;
  const std::unique_ptr<DepartureStamps> stamps_;
  const std::size_t payload_offset_;
  const bool waits_;
  BurstSocket sender_;
  std::atomic<std::uint64_t> icmp_errors_{0};
};

}  // namespace ipplayout
