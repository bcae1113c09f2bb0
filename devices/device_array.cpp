// SPDX-License-Identifier: MIT
#include "devices/device_array.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace ipplayout {
namespace {

constexpr std::size_t kIPv4TextSize = 16;
constexpr std::size_t kIPv6TextSize = 50;

// Cuts what does not fit, always ends with NUL. `to` holds zeros.
void CopyText(const std::string& text, char* to, std::size_t size) {
  text.copy(to, std::min(text.size(), size - 1));
}

}  // namespace

void DeviceArray::Create(const std::vector<std::unique_ptr<DeviceIdentifier>>& devices) {
  DeviceArray created;
  created.entries_ = std::make_unique<DeviceListEntry[]>(devices.size());
  for (std::size_t i = 0; i < devices.size(); ++i) {
    created.Fill(*devices[i], created.entries_[i]);
  }
  *this = std::move(created);
}

void DeviceArray::Delete() {
  *this = DeviceArray();
}

void DeviceArray::Fill(const DeviceIdentifier& device, DeviceListEntry& entry) {
  entry.Index = device.GetIndex();
  CopyText(device.GetName(), entry.Name, sizeof entry.Name);
  CopyText(device.GetDescription(), entry.Description, sizeof entry.Description);

  std::vector<std::string> netmasks;
  const auto ipv4 = device.GetIPv4Addresses(netmasks);
  const auto ipv6 = device.GetIPv6Addresses();
  entry.IPv4Addresses = KeepTexts(ipv4, kIPv4TextSize);
  entry.IPv4AddressCount = static_cast<int>(ipv4.size());
  entry.IPv6Addresses = KeepTexts(ipv6, kIPv6TextSize);
  entry.IPv6AddressCount = static_cast<int>(ipv6.size());
  entry.IPv4Netmasks = KeepTexts(netmasks, kIPv4TextSize);
  entry.IPv4NetmaskCount = static_cast<int>(netmasks.size());

  const MacAddress& mac = device.GetMacAddress();
  std::memcpy(entry.MacAddress, mac.data(), mac.size());
}

const char* const* DeviceArray::KeepTexts(const std::vector<std::string>& texts,
                                          std::size_t text_size) {
  auto pointers = std::make_unique<const char*[]>(texts.size());
  for (std::size_t i = 0; i < texts.size(); ++i) {
    auto copy = std::make_unique<char[]>(text_size);
    CopyText(texts[i], copy.get(), text_size);
    pointers[i] = copy.get();
    texts_.push_back(std::move(copy));
  }
  pointers_.push_back(std::move(pointers));
  return pointers_.back().get();
}

}  // namespace ipplayout
