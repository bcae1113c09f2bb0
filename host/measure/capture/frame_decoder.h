// SPDX-License-Identifier: MIT
// Takes a captured frame apart as far as its UDP payload. Nothing in the frame is trusted: every
// length is checked against what is there before a byte behind it is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "host/measure/capture/flow_key.h"

namespace ipplay::measure {

// Where the frame's first byte stands in the protocol stack.
enum class LinkType {
  kEthernet,     // Ethernet II
  kRawIp,        // the IP header comes first
  kLinuxCooked,  // Linux "any" device, version 1: 16 bytes of link header
  kLinuxCooked2  // Linux "any" device, version 2: 20 bytes of link header
};

// What a frame turned out to be; all but kUdp are counted and not looked at further.
enum class FrameClass {
  kUdp,           // a whole UDP header: the only class with a decoded flow and payload
  kNotIp,         // ARP, LLDP and others, or more VLAN tags than two
  kNotUdp,        // IP with another protocol in it
  kFragment,      // part of a fragmented datagram
  kTruncated,     // ends within its headers
  kBadIpHeader,   // IP version, header length or total length cannot be, or says more than came
  kBadUdpLength,  // UDP length cannot be
};
inline constexpr std::size_t kFrameClasses = 7;

enum class UdpChecksum {
  kGood,
  kBad,        // wrong; or zero where RFC 8200 forbids it
  kAbsent,     // zero over IPv4: the sender made none (RFC 768)
  kUnchecked,  // not all bytes were captured, or nobody asked
};

struct DecodedFrame {
  FlowKey flow;
  // UDP payload as far as it was captured, and its length by the UDP header.
  std::span<const std::uint8_t> payload;
  std::uint32_t payload_length = 0;
  bool bad_ip_checksum = false;
  UdpChecksum udp_checksum = UdpChecksum::kUnchecked;

  bool IsComplete() const { return payload.size() == payload_length; }
};

// Bytes of a frame as far as they were captured, and how many there were on the wire (without
// the frame check sequence).
struct CapturedBytes {
  std::span<const std::uint8_t> bytes;
  std::size_t wire_length = 0;
};

// Fills `decoded` when the result is kUdp, and leaves it in no particular state otherwise.
// `check_udp` off saves reading the payload.
FrameClass DecodeFrame(LinkType link, const CapturedBytes& frame, bool check_udp,
                       DecodedFrame& decoded);

}  // namespace ipplay::measure
