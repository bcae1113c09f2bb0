// SPDX-License-Identifier: MIT
#include "devices/device_list.h"

#include "devices/device_enumerator.h"

namespace ipplayout {

void DeviceList::Enumerate() {
  array_.Delete();  // it would no longer match the list
  DeviceEnumerator(driver_).EnumerateDevices(devices_);
}

void DeviceList::Clear() {
  array_.Delete();
  devices_.clear();
}

DeviceIdentifier* DeviceList::At(int position) const {
  if (position < 0 || position >= Size()) {
    return nullptr;
  }
  return devices_[static_cast<std::size_t>(position)].get();
}

}  // namespace ipplayout
