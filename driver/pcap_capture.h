// SPDX-License-Identifier: MIT
// Capturing on an adapter through libpcap.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "driver/capture_driver.h"

struct bpf_program;
struct pcap;

namespace ipplayout {

// Belongs to one thread at a time.
class PcapCapture {
 public:
  // Null when `interface` does not exist or may not be opened.
  static std::unique_ptr<PcapCapture> Open(const std::string& interface,
                                           const OpenOptions& options);

  FilterResult SetFilter(const char* text, std::uint32_t netmask);
  // As CaptureHandle::NextFrame.
  std::optional<CapturedFrame> NextFrame();

 private:
  struct Close {
    void operator()(pcap* capture) const;
  };
  using Capture = std::unique_ptr<pcap, Close>;

  PcapCapture(Capture capture, std::chrono::milliseconds read_timeout);

  FilterResult Install(bpf_program& program);

  const Capture capture_;
  const int descriptor_;
  const std::chrono::nanoseconds read_timeout_;
};

}  // namespace ipplayout
