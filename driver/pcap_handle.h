// An adapter opened through libpcap.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "driver/burst_socket.h"
#include "driver/capture_driver.h"

struct bpf_program;
struct pcap;

namespace ipplayout {

class PcapHandle final : public CaptureHandle {
 public:
  // Null when `interface` does not exist or may not be opened.
  static std::unique_ptr<PcapHandle> Open(const std::string& interface, const OpenOptions& options);

  int DataLink() const override;
  FilterResult SetFilter(const char* text, std::uint32_t netmask) override;
  bool SendFrame(std::span<const std::uint8_t> frame) override;
  std::size_t TransmitQueue(const SendQueue& queue, bool synchronised,
                            platform::DeadlineWaiter& waiter) override;
  std::optional<CapturedFrame> NextFrame() override;

 private:
  struct Close {
    void operator()(pcap* capture) const;
  };
  using Capture = std::unique_ptr<pcap, Close>;

  FilterResult Install(bpf_program& program);

  PcapHandle(Capture capture, std::chrono::milliseconds read_timeout);

  const Capture capture_;
  const int descriptor_;
  const std::chrono::nanoseconds read_timeout_;
  BurstSocket sender_;
};

}  // namespace ipplayout
