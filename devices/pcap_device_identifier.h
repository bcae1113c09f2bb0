// SPDX-License-Identifier: MIT
// A device that the capture driver listed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "devices/device_identifier.h"

namespace ipplayout {

class PcapDeviceIdentifier final : public DeviceIdentifier {
 public:
  // `driver` outlives the device and the interfaces that it creates.
  PcapDeviceIdentifier(std::string name, std::string description, CaptureDriver& driver);

  int GetIndex() const override;
  void SetIndex(int index) override;
  std::string GetName() const override;
  std::string GetDescription() const override;
  std::unique_ptr<PcapRtInterface> CreateInterface(const std::uint32_t* read_timeout_ms) override;
  void DestroyInterface(std::unique_ptr<PcapRtInterface> capture_interface) override;
  void SetMacAddress(const MacAddress& mac) override;
  const MacAddress& GetMacAddress() const override;
  void SetIPv4Addresses(std::vector<std::string> addresses,
                        std::vector<std::string> netmasks) override;
  std::vector<std::string> GetIPv4Addresses(std::vector<std::string>& netmasks) const override;
  void SetIPv6Addresses(std::vector<std::string> addresses) override;
  std::vector<std::string> GetIPv6Addresses() const override;
  int GetScopeId() const override;
  void SetScopeId(int scope_id) override;

 private:
  int index_ = 0;
  const std::string name_;
  const std::string description_;
  MacAddress mac_{};
  std::vector<std::string> ipv4_addresses_;
  std::vector<std::string> ipv6_addresses_;
  std::vector<std::string> ipv4_netmasks_;
  int scope_id_ = 0;
  CaptureDriver& driver_;
};

}  // namespace ipplayout
