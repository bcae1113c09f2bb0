// SPDX-License-Identifier: MIT
// A UDP socket that sends to one destination.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "platform/addresses.h"
#include "platform/descriptor.h"

namespace ipplayout {

using IpAddress = std::variant<platform::Ipv4Address, platform::Ipv6Address>;

struct UdpSocketSettings {
  IpAddress destination;
  std::uint16_t destination_port = 0;
  std::optional<IpAddress> source;  // of the destination's kind; none: the system's choice
  std::uint16_t source_port = 0;    // 0: the system's choice
  bool share_source_port = false;   // with other sockets that share it
  // Empty: as the system's routes say. Else the interface for unicast and multicast alike, and the
  // scope of link-local IPv6 addresses.
  std::string interface;
  std::uint8_t hop_limit = 64;  // time to live; 0 for multicast only
  std::uint8_t traffic_class = 0;
  std::uint32_t flow_label = 0;  // IPv6; some systems keep those from 0x80000 on for themselves
  bool multicast_loop = true;    // to receivers on this machine
  bool dont_fragment = false;    // datagrams that are too long are refused (EMSGSIZE)
};

// Every setting applied and connected, or not open, with errno set and in `step` what could not be
// done. The socket receives nothing, never blocks, and reports in its queue of errors what ICMP
// messages say. Needs no right.
platform::Descriptor OpenUdpSocket(const UdpSocketSettings& settings, const char*& step);

}  // namespace ipplayout
