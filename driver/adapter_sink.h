// SPDX-License-Identifier: MIT
// An adapter as the destination of a schedule.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "driver/burst_socket.h"
#include "driver/departure_stamps.h"
#include "driver/frame_sink.h"
#include "driver/opened.h"
#include "driver/xdp_sender.h"
#include "platform/descriptor.h"

namespace ipplayout {

struct AdapterSinkSettings {
  std::string interface;
  // Departure stamps for frames with a tag. Where the kernel gives none, the sink has no
  // DepartureDescriptor. They come from the packet socket only.
  bool stamps = false;
  // Without stamps, sends through AF_XDP where the system allows it.
  bool prefer_xdp = false;
};

// Through a packet socket with its queueing discipline left out, or AF_XDP. A full queue is waited
// for up to a second in which nothing leaves. The error is the frame's own where it is too long for
// the adapter (EMSGSIZE) or too short for an Ethernet header (EINVAL).
class AdapterSink final : public FrameSink {
 public:
  // In the network namespace of the calling thread. Needs CAP_NET_RAW.
  static Opened<AdapterSink> Open(const AdapterSinkSettings& settings);
  AdapterSink(const AdapterSink&) = delete;
  AdapterSink& operator=(const AdapterSink&) = delete;

  Result Send(std::span<const OutgoingFrame> frames,
              const platform::DeadlineWaiter& waiter) override;
  const char* Name() const override;
  std::uint64_t Retries() const override;
  std::size_t ReadDepartures(std::span<Departure> out) override;
  int DepartureDescriptor() const override;

 private:
  AdapterSink(platform::Descriptor socket, std::unique_ptr<DepartureStamps> stamps,
              bool patient_once);

  const platform::Descriptor socket_;
  const std::unique_ptr<DepartureStamps> stamps_;
  BurstSocket sender_;
  std::unique_ptr<XdpSender> fast_sender_;  // sends through sender_ what it cannot send itself
};

}  // namespace ipplayout
