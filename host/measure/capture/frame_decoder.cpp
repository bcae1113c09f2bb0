// SPDX-License-Identifier: MIT
#include "host/measure/capture/frame_decoder.h"

#include <algorithm>
#include <optional>

#include "host/base/byte_order.h"
#include "host/base/internet_checksum.h"

namespace ipplay::measure {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint16_t kTypeIpv4 = 0x0800;
constexpr std::uint16_t kTypeIpv6 = 0x86DD;
constexpr std::size_t kVlanTagLength = 4;
constexpr std::size_t kUdpHeaderLength = 8;
constexpr std::uint8_t kProtocolUdp = 17;

// IPv4, RFC 791, 3.1.
constexpr std::size_t kIpv4HeaderLength = 20;
constexpr std::size_t kIpv4TotalLength = 2;
constexpr std::size_t kIpv4Fragment = 6;
constexpr std::uint16_t kIpv4MoreFragmentsOrOffset = 0x3FFF;
constexpr std::size_t kIpv4Protocol = 9;
constexpr std::size_t kIpv4Source = 12;
constexpr std::size_t kIpv4Destination = 16;

// IPv6, RFC 8200, 3 and 4.
constexpr std::size_t kIpv6HeaderLength = 40;
constexpr std::size_t kIpv6PayloadLength = 4;
constexpr std::size_t kIpv6NextHeader = 6;
constexpr std::size_t kIpv6Source = 8;
constexpr std::size_t kIpv6Destination = 24;
constexpr std::uint8_t kHopByHop = 0;
constexpr std::uint8_t kRouting = 43;
constexpr std::uint8_t kFragment = 44;
constexpr std::uint8_t kDestinationOptions = 60;

// How much link header there is, and where its protocol type stands.
struct LinkHeader {
  std::size_t length;
  std::size_t type_at;
};

LinkHeader HeaderOf(LinkType link) {
  switch (link) {
    case LinkType::kEthernet:
      return {14, 12};
    case LinkType::kLinuxCooked:
      return {16, 14};
    case LinkType::kLinuxCooked2:
      return {20, 0};
    case LinkType::kRawIp:
      break;
  }
  return {0, 0};
}

// IEEE 802.1Q customer and service tags, and the service tag's older value.
bool IsVlanType(std::uint16_t type) {
  return type == 0x8100 || type == 0x88A8 || type == 0x9100;
}

// Bytes of the UDP datagram within an IP packet, or what is wrong with the packet.
struct IpPayload {
  FrameClass result;
  Bytes captured;      // what was captured of the IP payload
  std::size_t length;  // its length by the IP header
  // Ones'-complement sums. Without that of the destination where it is not known.
  std::uint16_t source;
  std::optional<std::uint16_t> destination;
};

IpPayload Refuse(FrameClass result) {
  return {result, {}, 0, 0, 0};
}

// `wire_length` is how many bytes of the packet there were on the wire.
IpPayload DecodeIpv4(Bytes packet, std::size_t wire_length, DecodedFrame& decoded) {
  if (packet.size() < kIpv4HeaderLength) {
    return Refuse(FrameClass::kTruncated);
  }
  const std::size_t header_length = std::size_t{packet[0] & 0x0FU} * 4;
  const std::size_t total_length = LoadBe16(&packet[kIpv4TotalLength]);
  if (header_length < kIpv4HeaderLength || total_length < header_length ||
      total_length > wire_length) {
    return Refuse(FrameClass::kBadIpHeader);
  }
  if (packet.size() < header_length) {
    return Refuse(FrameClass::kTruncated);
  }
  if ((LoadBe16(&packet[kIpv4Fragment]) & kIpv4MoreFragmentsOrOffset) != 0) {
    return Refuse(FrameClass::kFragment);
  }
  if (packet[kIpv4Protocol] != kProtocolUdp) {
    return Refuse(FrameClass::kNotUdp);
  }

  decoded.bad_ip_checksum = OnesComplementSum(packet.first(header_length)) != 0xFFFF;
  decoded.flow.ip_version = 4;
  std::copy_n(&packet[kIpv4Source], 4, decoded.flow.source.begin());
  std::copy_n(&packet[kIpv4Destination], 4, decoded.flow.destination.begin());
  const std::size_t captured = std::min(packet.size(), total_length) - header_length;
  return {FrameClass::kUdp, packet.subspan(header_length, captured), total_length - header_length,
          OnesComplementSum(packet.subspan(kIpv4Source, 4)),
          OnesComplementSum(packet.subspan(kIpv4Destination, 4))};
}

// Where a packet goes to in the end, which is what its checksum covers (RFC 8200, 8.1), while its
// header names the next node on the way.
std::optional<std::uint16_t> FinalDestination(Bytes routing) {
  constexpr std::size_t kFirst = 8;
  constexpr std::size_t kAddress = 16;
  if (routing.size() < kFirst + kAddress) {
    return std::nullopt;
  }
  switch (routing[2]) {
    case 0:  // RFC 2460, 4.4: the last address
    case 2:  // RFC 6275, 6.4: the only one
      return OnesComplementSum(routing.last(kAddress));
    case 4:  // RFC 8754, 2: the first one of the list
      return OnesComplementSum(routing.subspan(kFirst, kAddress));
    default:
      return std::nullopt;
  }
}

// Walks over the extension headers, each of which says what follows it and how long it is.
IpPayload SkipExtensions(IpPayload payload, std::uint8_t next_header) {
  while (next_header != kProtocolUdp) {
    if (next_header == kFragment) {
      return Refuse(FrameClass::kFragment);
    }
    if (next_header != kHopByHop && next_header != kRouting && next_header != kDestinationOptions) {
      return Refuse(FrameClass::kNotUdp);
    }
    if (payload.captured.size() < 8) {
      return Refuse(FrameClass::kTruncated);
    }
    const std::size_t length = (std::size_t{payload.captured[1]} + 1) * 8;
    if (length > payload.length) {
      return Refuse(FrameClass::kBadIpHeader);
    }
    if (length > payload.captured.size()) {
      return Refuse(FrameClass::kTruncated);
    }
    const bool on_its_way = next_header == kRouting && payload.captured[3] > 0;  // segments left
    if (on_its_way) {
      payload.destination = FinalDestination(payload.captured.first(length));
    }
    next_header = payload.captured[0];
    payload.captured = payload.captured.subspan(length);
    payload.length -= length;
  }
  return payload;
}

IpPayload DecodeIpv6(Bytes packet, std::size_t wire_length, DecodedFrame& decoded) {
  if (packet.size() < kIpv6HeaderLength) {
    return Refuse(FrameClass::kTruncated);
  }
  decoded.bad_ip_checksum = false;
  decoded.flow.ip_version = 6;
  std::copy_n(&packet[kIpv6Source], 16, decoded.flow.source.begin());
  std::copy_n(&packet[kIpv6Destination], 16, decoded.flow.destination.begin());
  const std::size_t length = LoadBe16(&packet[kIpv6PayloadLength]);
  if (length > wire_length - kIpv6HeaderLength) {
    return Refuse(FrameClass::kBadIpHeader);
  }
  const std::size_t captured = std::min(packet.size() - kIpv6HeaderLength, length);
  const IpPayload payload{FrameClass::kUdp, packet.subspan(kIpv6HeaderLength, captured), length,
                          OnesComplementSum(packet.subspan(kIpv6Source, 16)),
                          OnesComplementSum(packet.subspan(kIpv6Destination, 16))};
  return SkipExtensions(payload, packet[kIpv6NextHeader]);
}

UdpChecksum CheckUdp(Bytes datagram, std::uint16_t addresses, bool v4) {
  if (LoadBe16(&datagram[6]) == 0) {
    return v4 ? UdpChecksum::kAbsent : UdpChecksum::kBad;
  }
  // Pseudo-header: both addresses, the protocol, the UDP length (RFC 768; RFC 8200, 8.1).
  std::uint16_t sum = AddSums(addresses, kProtocolUdp);
  sum = AddSums(sum, static_cast<std::uint16_t>(datagram.size()));
  sum = AddSums(sum, OnesComplementSum(datagram));
  return sum == 0xFFFF ? UdpChecksum::kGood : UdpChecksum::kBad;
}

FrameClass DecodeUdp(const IpPayload& ip, bool check_udp, DecodedFrame& decoded) {
  if (ip.length < kUdpHeaderLength) {
    return FrameClass::kBadUdpLength;
  }
  if (ip.captured.size() < kUdpHeaderLength) {
    return FrameClass::kTruncated;
  }
  const std::uint8_t* header = ip.captured.data();
  const std::size_t udp_length = LoadBe16(header + 4);
  if (udp_length < kUdpHeaderLength || udp_length > ip.length) {
    return FrameClass::kBadUdpLength;
  }

  const Bytes datagram = ip.captured.first(std::min(ip.captured.size(), udp_length));
  decoded.flow.source_port = LoadBe16(header);
  decoded.flow.destination_port = LoadBe16(header + 2);
  decoded.payload = datagram.subspan(kUdpHeaderLength);
  decoded.payload_length = static_cast<std::uint32_t>(udp_length - kUdpHeaderLength);
  decoded.udp_checksum =
      check_udp && decoded.IsComplete() && ip.destination
          ? CheckUdp(datagram, AddSums(ip.source, *ip.destination), decoded.flow.ip_version == 4)
          : UdpChecksum::kUnchecked;
  return FrameClass::kUdp;
}

// Takes up to two VLAN tags off; `packet` starts behind the type field that was read last.
std::optional<std::uint16_t> SkipVlanTags(std::uint16_t type, Bytes& packet, FlowKey& flow) {
  for (std::uint16_t* vlan : {&flow.vlan, &flow.inner_vlan}) {
    if (!IsVlanType(type)) {
      return type;
    }
    if (packet.size() < kVlanTagLength) {
      return std::nullopt;
    }
    *vlan = LoadBe16(packet.data()) & 0x0FFF;
    type = LoadBe16(packet.data() + 2);
    packet = packet.subspan(kVlanTagLength);
  }
  return type;
}

}  // namespace

FrameClass DecodeFrame(LinkType link, const CapturedBytes& frame, bool check_udp,
                       DecodedFrame& decoded) {
  decoded.flow = FlowKey{};
  std::uint8_t version = 0;
  Bytes packet = frame.bytes;
  if (link != LinkType::kRawIp) {
    const LinkHeader header = HeaderOf(link);
    if (packet.size() < header.length) {
      return FrameClass::kTruncated;
    }
    const std::uint16_t link_type = LoadBe16(&packet[header.type_at]);
    packet = packet.subspan(header.length);
    const auto type = SkipVlanTags(link_type, packet, decoded.flow);
    if (!type) {
      return FrameClass::kTruncated;
    }
    if (*type != kTypeIpv4 && *type != kTypeIpv6) {
      return FrameClass::kNotIp;
    }
    version = *type == kTypeIpv4 ? 4 : 6;
  }
  if (packet.empty()) {
    return FrameClass::kTruncated;
  }
  if (version == 0) {
    version = packet[0] >> 4;
  }
  if (packet[0] >> 4 != version || (version != 4 && version != 6)) {
    return FrameClass::kBadIpHeader;
  }

  const std::size_t not_captured =
      frame.wire_length > frame.bytes.size() ? frame.wire_length - frame.bytes.size() : 0;
  const std::size_t wire_length = packet.size() + not_captured;
  const IpPayload ip = version == 4 ? DecodeIpv4(packet, wire_length, decoded)
                                    : DecodeIpv6(packet, wire_length, decoded);
  return ip.result == FrameClass::kUdp ? DecodeUdp(ip, check_udp, decoded) : ip.result;
}

}  // namespace ipplay::measure
