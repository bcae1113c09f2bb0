// SPDX-License-Identifier: MIT
// Bytes of the headers in front of a stream, and what makes an IPv4 header longer.
#pragma once

#include <cstdint>

namespace ipplay {

inline constexpr std::uint32_t kEthernetHeaderBytes = 14;  // IEEE 802.3, without the FCS
inline constexpr std::uint32_t kVlanTagBytes = 4;          // IEEE 802.1Q
inline constexpr std::uint32_t kIpv4HeaderBytes = 20;      // RFC 791, without options
inline constexpr std::uint32_t kIpv4RouterAlertBytes = 4;  // RFC 2113
inline constexpr std::uint32_t kIpv6HeaderBytes = 40;      // RFC 8200
inline constexpr std::uint32_t kUdpHeaderBytes = 8;        // RFC 768
inline constexpr std::uint32_t kRtpHeaderBytes = 12;       // RFC 3550, without CSRCs

// Datagrams of this protocol carry the router alert option.
inline constexpr std::uint32_t kRouterAlertProtocol = 2;

}  // namespace ipplay
