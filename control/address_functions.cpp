// SPDX-License-Identifier: MIT
// The exported address functions.
#include <algorithm>
#include <cstring>
#include <exception>

#include "control/library.h"
#include "devices/address_resolution.h"
#include "driver/capture_driver.h"
#include "ipplayout/ipplayout.h"
#include "platform/address_text.h"
#include "platform/host_name.h"
#include "platform/neighbour.h"

namespace {

bool Resolve(int ip_version, const std::uint8_t* target, std::uint8_t* mac, int position) {
  ipplayout::AddressResolver resolver(ipplayout::TheLibrary().parts.devices,
                                      ipplayout::PlatformDriver(),
                                      ipplayout::platform::SystemNeighbours());
  if (ip_version == IPPLAYOUT_IPV6) {
    return resolver.SolicitNeighbour(target, mac, position);
  }
  if (ip_version != IPPLAYOUT_IPV4) {
    return false;
  }
  ipplayout::platform::Ipv4Address address{};
  std::copy_n(target, address.size(), address.begin());
  return resolver.ResolveIPv4(address, mac, position);
}

}  // namespace

int GetMacAddressForIP(int ipVersion, const std::uint8_t* target, std::uint8_t** mac,
                       int deviceIndex) {
  if (target == nullptr || mac == nullptr || *mac == nullptr) {
    return 0;
  }
  try {
    return Resolve(ipVersion, target, *mac, deviceIndex) ? 1 : 0;
  } catch (const std::exception&) {
    return 0;  // no memory
  }
}

int GetHostIPAddress(char** text) {
  if (text == nullptr || *text == nullptr) {
    return 0;
  }
  try {
    const auto address = ipplayout::platform::IPv4Text(ipplayout::platform::HostAddress());
    std::memcpy(*text, address.c_str(), address.size() + 1);
    return 1;
  } catch (const std::exception&) {
    return 0;  // no memory
  }
}

int GetIpAddressBytes(char* text, unsigned char* bytes) {
  if (text == nullptr || bytes == nullptr) {
    return 0;
  }
  return ipplayout::ReadDottedDecimal(text, bytes) ? 1 : 0;
}
