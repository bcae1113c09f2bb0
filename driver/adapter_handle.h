// SPDX-License-Identifier: MIT
// An opened adapter: sends through sockets of its own and captures through libpcap.
#pragma once

#include <memory>
#include <string>

#include "driver/burst_socket.h"
#include "driver/capture_driver.h"
#include "driver/pcap_capture.h"
#include "driver/xdp_sender.h"
#include "platform/descriptor.h"

namespace ipplayout {

// Whoever only sends never sets up a receive ring: with one, opening and closing wait for the
// kernel to let every processor pass (packet_set_ring), and frames of others cost time on their way
// in.
class AdapterHandle final : public CaptureHandle {
 public:
  // Null when `interface` does not exist, has no Ethernet header, or may not be opened.
  static std::unique_ptr<AdapterHandle> Open(const std::string& interface,
                                             const OpenOptions& options);

  int DataLink() const override { return kEthernetDataLink; }
  FilterResult SetFilter(const char* text, std::uint32_t netmask) override;
  void ExpectBatches() override;
  bool SendFrame(std::span<const std::uint8_t> frame) override;
  std::size_t TransmitQueue(const SendQueue& queue, bool synchronised,
                            platform::DeadlineWaiter& waiter) override;
  std::optional<CapturedFrame> NextFrame() override;

 private:
  AdapterHandle(platform::Descriptor socket, std::string interface, unsigned interface_index,
                const OpenOptions& options);

  // Null when it cannot be opened.
  PcapCapture* Capture();

  const platform::Descriptor socket_;
  const std::string interface_;
  const unsigned interface_index_;
  const OpenOptions options_;
  BurstSocket sender_;
  std::unique_ptr<XdpSender> fast_sender_;  // sends through sender_ what it cannot send itself
  std::unique_ptr<PcapCapture> capture_;    // the reading thread's
  const platform::DeadlineWaiter endless_;  // of single frames: never gives up
};

}  // namespace ipplayout
