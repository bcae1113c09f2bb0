// SPDX-License-Identifier: MIT
// The question of IPv6 neighbour discovery and its answer, as Ethernet frames (RFC 4861).
//
//   offset  size  solicitation
//        0     6  destination MAC    33:33 and the last four bytes of the destination (RFC 2464, 7)
//        6     6  source MAC
//       12     2  EtherType          0x86DD
//       14     4  version, class, flow label: 6, 0, 0 (RFC 8200, 3)
//       18     2  payload length     32
//       20     1  next header        58, ICMPv6
//       21     1  hop limit          255 (RFC 4861, 4.3)
//       22    16  source address
//       38    16  destination        solicited-node multicast of the target (RFC 4291, 2.7.1)
//       54     1  type               135; 136 in the answer
//       55     1  code               0
//       56     2  checksum           over pseudo-header and ICMPv6 message (RFC 8200, 8.1)
//       58     4  reserved           0
//       62    16  target address
//       78     1  option type        1, source link-layer address; 2, target's, in the answer
//       79     1  option length      1 unit of 8 bytes
//       80     6  link-layer address
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "driver/capture_driver.h"
#include "platform/addresses.h"

namespace ipplayout {

inline constexpr std::size_t kSolicitationSize = 86;
using SolicitationFrame = std::array<std::uint8_t, kSolicitationSize>;

// FF02::1:FFxx:xxxx with the last three bytes of the target.
platform::Ipv6Address SolicitedNodeAddress(const platform::Ipv6Address& target);

MacAddress MulticastMacForAddress(const platform::Ipv6Address& address);

SolicitationFrame BuildSolicitation(const MacAddress& source_mac,
                                    const platform::Ipv6Address& source,
                                    const platform::Ipv6Address& target);

// The link-layer address in an advertisement of `target` that is laid out as above; nothing in
// other frames. A receiver must drop what comes from beyond the link, where the hop limit is no
// longer 255, and what has a wrong checksum (RFC 4861, 7.1.2); of a message longer than the frame
// the checksum cannot be known.
std::optional<MacAddress> ReadAdvertisement(std::span<const std::uint8_t> frame,
                                            const platform::Ipv6Address& target);

}  // namespace ipplayout
