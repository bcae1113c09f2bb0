// SPDX-License-Identifier: MIT
// The adapters that the library knows, and the array that hosts see of them.
#pragma once

#include <memory>
#include <vector>

#include "devices/device_array.h"
#include "devices/device_identifier.h"

namespace ipplayout {

// Filling, clearing and making the array must not overlap each other or a reader.
class DeviceList {
 public:
  // `driver` outlives the list.
  explicit DeviceList(CaptureDriver& driver) : driver_(driver) {}

  // Appends the adapters that can carry a playout, with a line each on standard output.
  void Enumerate();
  // Destroys array and devices.
  void Clear();

  int Size() const { return static_cast<int>(devices_.size()); }
  // The device at a position as DeviceIndex counts; null outside the list.
  DeviceIdentifier* At(int position) const;

  void CreateArray() { array_.Create(devices_); }
  void DeleteArray() { array_.Delete(); }
  const DeviceListEntry* Array() const { return array_.Get(); }

 private:
  CaptureDriver& driver_;
  std::vector<std::unique_ptr<DeviceIdentifier>> devices_;
  DeviceArray array_;
};

}  // namespace ipplayout
