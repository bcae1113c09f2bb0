// SPDX-License-Identifier: MIT
#include "devices/pcap_device_identifier.h"

#include <new>
#include <utility>

#include "transmit/pcap_rt_interface.h"

namespace ipplayout {

PcapDeviceIdentifier::PcapDeviceIdentifier(std::string name, std::string description,
                                           CaptureDriver& driver)
    : name_(std::move(name)), description_(std::move(description)), driver_(driver) {}

int PcapDeviceIdentifier::GetIndex() const {
  return index_;
}

void PcapDeviceIdentifier::SetIndex(int index) {
  index_ = index;
}

std::string PcapDeviceIdentifier::GetName() const {
  return name_;
}

std::string PcapDeviceIdentifier::GetDescription() const {
  return description_;
}

std::unique_ptr<PcapRtInterface> PcapDeviceIdentifier::CreateInterface(
    const std::uint32_t* read_timeout_ms) {
  try {
    return std::make_unique<PcapRtInterface>(name_, *read_timeout_ms, driver_);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// Its owner, the parameter, destroys it.
void PcapDeviceIdentifier::DestroyInterface(
    std::unique_ptr<PcapRtInterface> /*capture_interface*/) {}

void PcapDeviceIdentifier::SetMacAddress(const MacAddress& mac) {
  mac_ = mac;
}

const MacAddress& PcapDeviceIdentifier::GetMacAddress() const {
  return mac_;
}

void PcapDeviceIdentifier::SetIPv4Addresses(std::vector<std::string> addresses,
                                            std::vector<std::string> netmasks) {
  ipv4_addresses_ = std::move(addresses);
  ipv4_netmasks_ = std::move(netmasks);
}

std::vector<std::string> PcapDeviceIdentifier::GetIPv4Addresses(
    std::vector<std::string>& netmasks) const {
  netmasks = ipv4_netmasks_;
  return ipv4_addresses_;
}

void PcapDeviceIdentifier::SetIPv6Addresses(std::vector<std::string> addresses) {
  ipv6_addresses_ = std::move(addresses);
}

std::vector<std::string> PcapDeviceIdentifier::GetIPv6Addresses() const {
  return ipv6_addresses_;
}

int PcapDeviceIdentifier::GetScopeId() const {
  return scope_id_;
}

void PcapDeviceIdentifier::SetScopeId(int scope_id) {
  scope_id_ = scope_id;
}

}  // namespace ipplayout
