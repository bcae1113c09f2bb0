// SPDX-License-Identifier: MIT
// Finds the adapters that can carry a playout.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "devices/device_identifier.h"
#include "driver/capture_driver.h"

namespace ipplayout {

// An adapter's addresses as text.
struct DeviceAddresses {
  std::vector<std::string> ipv4;
  std::vector<std::string> ipv4_netmasks;
  std::vector<std::string> ipv6;
  int scope_id = 0;
};

// Reports on standard output: each listed adapter's MAC address, or why it has none, and
// addresses of a family that is not handled.
class DeviceEnumerator {
 public:
  // `driver` outlives the enumerator and the devices that it makes.
  explicit DeviceEnumerator(CaptureDriver& driver) : driver_(driver) {}

  // Appends one device per adapter that can carry a playout. Adds none when the driver has no list.
  void EnumerateDevices(std::vector<std::unique_ptr<DeviceIdentifier>>& devices);

  // `adapter` comes without kDevicePrefix. False, `mac` unchanged, when the adapter cannot be
  // opened; true, `mac` unchanged, when it opens but has no MAC address to tell.
  bool QueryAdapterMac(const std::string& adapter, MacAddress& mac);

  static DeviceAddresses CollectAddresses(const Adapter& adapter);

 private:
  CaptureDriver& driver_;
};

}  // namespace ipplayout
