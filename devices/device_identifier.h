// SPDX-License-Identifier: MIT
// An adapter that a playout can leave through, as the rest of the library sees it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "driver/capture_driver.h"

namespace ipplayout {

class PcapRtInterface;

// Belongs to the device list. Changed only while the list is filled; read from any thread.
class DeviceIdentifier {
 public:
  virtual ~DeviceIdentifier() = default;

  // Position in the capture driver's list, which also counts the adapters that were left out.
  virtual int GetIndex() const = 0;
  virtual void SetIndex(int index) = 0;

  // What the capture driver opens the adapter by.
  virtual std::string GetName() const = 0;
  virtual std::string GetDescription() const = 0;

  // A capture interface on this adapter, not opened yet. Null when memory runs out.
  virtual std::unique_ptr<PcapRtInterface> CreateInterface(
      const std::uint32_t* read_timeout_ms) = 0;
  virtual void DestroyInterface(std::unique_ptr<PcapRtInterface> capture_interface) = 0;

  virtual void SetMacAddress(const MacAddress& mac) = 0;
  virtual const MacAddress& GetMacAddress() const = 0;

  // Dotted decimal, in the capture driver's order.
  virtual void SetIPv4Addresses(std::vector<std::string> addresses,
                                std::vector<std::string> netmasks) = 0;
  virtual std::vector<std::string> GetIPv4Addresses(std::vector<std::string>& netmasks) const = 0;

  // Numeric text without a scope.
  virtual void SetIPv6Addresses(std::vector<std::string> addresses) = 0;
  virtual std::vector<std::string> GetIPv6Addresses() const = 0;

  // Scope of the adapter's link-local IPv6 address, 0 without one.
  virtual int GetScopeId() const = 0;
  virtual void SetScopeId(int scope_id) = 0;
};

}  // namespace ipplayout
