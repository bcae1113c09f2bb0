// SPDX-License-Identifier: MIT
#include "driver/pcap_driver.h"

#include <netinet/in.h>
#include <pcap.h>
#include <sys/socket.h>

#include <cstring>

#include "driver/adapter_handle.h"
#include "driver/device_name.h"
#include "platform/interface.h"

namespace ipplayout {
namespace {

std::optional<AdapterAddress> ToAddress(const sockaddr* address) {
  // An interface's own link-layer address stands among its addresses; it is no address of those.
  if (address == nullptr || address->sa_family == AF_PACKET) {
    return std::nullopt;
  }
  AdapterAddress result;
  if (address->sa_family == AF_INET) {
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, address, sizeof ipv4);
    result.family = AddressFamily::kIPv4;
    std::memcpy(result.bytes.data(), &ipv4.sin_addr, sizeof ipv4.sin_addr);
  } else if (address->sa_family == AF_INET6) {
    sockaddr_in6 ipv6{};
    std::memcpy(&ipv6, address, sizeof ipv6);
    result.family = AddressFamily::kIPv6;
    std::memcpy(result.bytes.data(), &ipv6.sin6_addr, sizeof ipv6.sin6_addr);
    result.scope_id = ipv6.sin6_scope_id;
  }
  return result;
}

Adapter ToAdapter(const pcap_if_t& listed) {
  Adapter adapter;
  adapter.name = std::string(kDevicePrefix) + listed.name;
  if (listed.description != nullptr) {
    adapter.description = listed.description;
  }
  for (const pcap_addr_t* entry = listed.addresses; entry != nullptr; entry = entry->next) {
    AddressEntry addresses{ToAddress(entry->addr), ToAddress(entry->netmask)};
    if (addresses.address || addresses.netmask) {
      adapter.addresses.push_back(addresses);
    }
  }
  return adapter;
}

// libpcap also lists sources that are no interfaces ("any", USB, Bluetooth, netfilter) and
// interfaces whose frames have no Ethernet header.
bool CanCarryPlayout(const pcap_if_t& listed) {
  int error = 0;
  const auto properties = platform::QueryInterface(listed.name, error);
  return properties && properties->ethernet_framed;
}

}  // namespace

std::optional<std::vector<Adapter>> PcapDriver::FindAllAdapters() {
  char error[PCAP_ERRBUF_SIZE];
  pcap_if_t* first = nullptr;
  if (::pcap_findalldevs(&first, error) != 0) {
    return std::nullopt;
  }
  const std::unique_ptr<pcap_if_t, decltype(&pcap_freealldevs)> list(first, pcap_freealldevs);
  std::vector<Adapter> adapters;
  for (const pcap_if_t* listed = first; listed != nullptr; listed = listed->next) {
    if (CanCarryPlayout(*listed)) {
      adapters.push_back(ToAdapter(*listed));
    }
  }
  return adapters;
}

std::unique_ptr<CaptureHandle> PcapDriver::Open(const std::string& name,
                                                const OpenOptions& options) {
  const auto interface = NameWithoutPrefix(name);
  return interface ? AdapterHandle::Open(*interface, options) : nullptr;
}

CaptureDriver::MacResult PcapDriver::QueryMac(const std::string& adapter, MacAddress& mac,
                                              unsigned long& system_error) {
  int error = 0;
  const auto properties = platform::QueryInterface(adapter, error);
  if (!properties) {
    system_error = static_cast<unsigned long>(error);
    return MacResult::kNotOpened;
  }
  if (!properties->ethernet_framed) {
    return MacResult::kQueryFailed;
  }
  mac = properties->mac;
  return MacResult::kDone;
}

CaptureDriver& PlatformDriver() {
  static PcapDriver driver;
  return driver;
}

}  // namespace ipplayout
