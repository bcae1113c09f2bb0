// SPDX-License-Identifier: MIT
#include "devices/device_enumerator.h"

#include <array>
#include <cstdio>
#include <string_view>
#include <utility>

#include "devices/pcap_device_identifier.h"
#include "driver/device_name.h"
#include "platform/address_text.h"

namespace ipplayout {
namespace {

// Virtual adapters that list themselves as Ethernet but do not carry frames as built.
constexpr std::array<std::string_view, 2> kSkippedNames{R"(\Device\NPF_GenericNdisWanAdapter)",
                                                        R"(\Device\NPF_GenericDialupAdapter)"};
constexpr std::array<std::string_view, 2> kSkippedDescriptions{"MS Tunnel Interface Driver",
                                                               "Tamarin NDIS Miniport Driver"};

bool ContainsAny(std::string_view text, const std::array<std::string_view, 2>& parts) {
  for (const std::string_view part : parts) {
    if (text.find(part) != std::string_view::npos) {
      return true;
    }
  }
  return false;
}

bool IsSkipped(const Adapter& adapter) {
  return ContainsAny(adapter.name, kSkippedNames) ||
         (adapter.description && ContainsAny(*adapter.description, kSkippedDescriptions));
}

std::string IPv4TextOf(const AdapterAddress& address) {
  const auto& bytes = address.bytes;
  return platform::IPv4Text({bytes[0], bytes[1], bytes[2], bytes[3]});
}

void ReportUnknownFamily() {
  std::printf("\tAddress Family Name: Unknown\n");
}

void CollectAddress(const AdapterAddress& address, DeviceAddresses& collected) {
  switch (address.family) {
    case AddressFamily::kIPv4:
      collected.ipv4.push_back(IPv4TextOf(address));
      return;
    case AddressFamily::kIPv6:
      collected.ipv6.push_back(platform::IPv6Text(address.bytes));
      // Only link-local addresses have a scope; a global one does not take it away.
      if (address.scope_id != 0) {
        collected.scope_id = static_cast<int>(address.scope_id);
      }
      return;
    case AddressFamily::kOther:
      ReportUnknownFamily();
  }
}

void CollectNetmask(const AdapterAddress& netmask, DeviceAddresses& collected) {
  if (netmask.family == AddressFamily::kIPv4) {
    collected.ipv4_netmasks.push_back(IPv4TextOf(netmask));
  } else {
    ReportUnknownFamily();
  }
}

}  // namespace

void DeviceEnumerator::EnumerateDevices(std::vector<std::unique_ptr<DeviceIdentifier>>& devices) {
  const auto adapters = driver_.FindAllAdapters();
  if (!adapters) {
    return;
  }
  int position = -1;
  for (const Adapter& adapter : *adapters) {
    ++position;
    const auto name = NameWithoutPrefix(adapter.name);
    if (IsSkipped(adapter) || !name) {
      continue;
    }
    auto device = std::make_unique<PcapDeviceIdentifier>(
        adapter.name, adapter.description.value_or("Network device (" + adapter.name + ")"),
        driver_);
    MacAddress mac{};
    QueryAdapterMac(*name, mac);
    device->SetMacAddress(mac);
    device->SetIndex(position);
    DeviceAddresses addresses = CollectAddresses(adapter);
    device->SetIPv4Addresses(std::move(addresses.ipv4), std::move(addresses.ipv4_netmasks));
    device->SetIPv6Addresses(std::move(addresses.ipv6));
    device->SetScopeId(addresses.scope_id);
    devices.push_back(std::move(device));
  }
}

bool DeviceEnumerator::QueryAdapterMac(const std::string& adapter, MacAddress& mac) {
  unsigned long system_error = 0;
  MacAddress current{};
  switch (driver_.QueryMac(adapter, current, system_error)) {
    case CaptureDriver::MacResult::kNotOpened:
      std::printf("Unable to open the adapter, Error Code : %lx\n", system_error);
      return false;
    case CaptureDriver::MacResult::kQueryFailed:
      std::printf("error retrieving the MAC address of the adapter!\n");
      return true;
    case CaptureDriver::MacResult::kDone:
      break;
  }
  mac = current;
  std::printf("The MAC address of the adapter is %.2x:%.2x:%.2x:%.2x:%.2x:%.2x\n", mac[0], mac[1],
              mac[2], mac[3], mac[4], mac[5]);
  return true;
}

DeviceAddresses DeviceEnumerator::CollectAddresses(const Adapter& adapter) {
  DeviceAddresses collected;
  for (const AddressEntry& entry : adapter.addresses) {
    if (entry.address) {
      CollectAddress(*entry.address, collected);
    }
    if (entry.netmask) {
      CollectNetmask(*entry.netmask, collected);
    }
  }
  return collected;
}

}  // namespace ipplayout
