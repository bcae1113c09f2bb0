// SPDX-License-Identifier: MIT
// The capture driver on libpcap and Linux packet sockets.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "driver/capture_driver.h"

namespace ipplayout {

// Works in the network namespace of the calling thread. Adapter names are interface names behind
// kDevicePrefix. Opening an adapter needs CAP_NET_RAW and sends nothing.
class PcapDriver final : public CaptureDriver {
 public:
  std::optional<std::vector<Adapter>> FindAllAdapters() override;
  std::unique_ptr<CaptureHandle> Open(const std::string& name, const OpenOptions& options) override;
  MacResult QueryMac(const std::string& adapter, MacAddress& mac,
                     unsigned long& system_error) override;
};

}  // namespace ipplayout
