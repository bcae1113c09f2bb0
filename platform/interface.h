// SPDX-License-Identifier: MIT
// What the kernel knows about a network interface of the calling thread's network namespace.
#pragma once

#include <optional>
#include <string>

#include "platform/addresses.h"

namespace ipplayout::platform {

struct InterfaceProperties {
  // Frames begin with an Ethernet header: Ethernet-like interfaces and loopback.
  bool ethernet_framed = false;
  // Neighbours have no link-layer addresses to resolve: point to point, loopback, no ARP.
  bool without_neighbours = false;
  MacAddress mac{};  // zero unless `ethernet_framed`
};

// Nothing when there is no such interface; `error` then gets the system's error number. Asks
// through a socket, because /sys may show the interfaces of another namespace.
std::optional<InterfaceProperties> QueryInterface(const std::string& name, int& error);

// 0 when there is no such interface.
unsigned InterfaceIndex(const std::string& name);

// Empty when there is no such interface.
std::string InterfaceName(unsigned index);

}  // namespace ipplayout::platform
