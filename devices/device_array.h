// SPDX-License-Identifier: MIT
// The device list in the flat form that hosts read.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "devices/device_identifier.h"
#include "ipplayout/ipplayout.h"

namespace ipplayout {

// Owns the records and every text and pointer array that they point to.
class DeviceArray {
 public:
  // Builds one record per device, in their order, in place of what was there.
  void Create(const std::vector<std::unique_ptr<DeviceIdentifier>>& devices);
  void Delete();

  // The first record; null before Create and after Delete.
  const DeviceListEntry* Get() const { return entries_.get(); }

 private:
  void Fill(const DeviceIdentifier& device, DeviceListEntry& entry);
  const char* const* KeepTexts(const std::vector<std::string>& texts, std::size_t text_size);

  std::unique_ptr<DeviceListEntry[]> entries_;
  std::vector<std::unique_ptr<char[]>> texts_;
  std::vector<std::unique_ptr<const char*[]>> pointers_;
};

}  // namespace ipplayout
