// SPDX-License-Identifier: MIT
#include "host/play/frame_fields.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "host/base/address.h"
#include "host/base/header_lengths.h"
#include "host/base/internet_checksum.h"

namespace ipplay {
namespace {

constexpr std::uint8_t kUdpProtocol = 17;

using Octets = std::vector<std::uint8_t>;

// RFC 1071.
std::uint16_t Checksum(const Octets& bytes) {
  return static_cast<std::uint16_t>(~OnesComplementSum(bytes));
}

class FieldWriter {
 public:
  // A big-endian number of `size` bytes.
  FrameField& Number(const char* name, std::uint64_t value, std::size_t size, std::string text) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
      bytes[i] = static_cast<std::uint8_t>(value >> (8 * (size - 1 - i)));
    }
    return Bytes(name, bytes, std::move(text));
  }
  FrameField& Number(const char* name, std::uint64_t value, std::size_t size) {
    return Number(name, value, size, std::to_string(value));
  }
  FrameField& Hex(const char* name, std::uint64_t value, std::size_t size) {
    return Number(name, value, size, fmt::format("0x{:0{}x}", value, 2 * size));
  }
  FrameField& Bytes(const char* name, std::span<const std::uint8_t> bytes, std::string text) {
    FrameField field;
    field.offset = size_;
    field.bytes.assign(bytes.begin(), bytes.end());
    field.name = name;
    field.value = std::move(text);
    size_ += static_cast<std::uint32_t>(bytes.size());
    fields_.push_back(std::move(field));
    return fields_.back();
  }
  FrameField& Mac(const char* name, const std::uint8_t (&bytes)[6]) {
    MacAddress mac{};
    std::copy(std::begin(bytes), std::end(bytes), mac.begin());
    return Bytes(name, bytes, FormatMac(mac));
  }
  template <std::size_t N>
  FrameField& Ip(const char* name, const std::uint8_t (&bytes)[N]) {
    IpAddress address{.is_v6 = N == 16};
    std::copy(std::begin(bytes), std::end(bytes), address.bytes.begin());
    return Bytes(name, bytes, FormatIp(address));
  }

  // Writes a checksum that could not be known when its field was added.
  void SetChecksum(std::size_t index, std::uint16_t checksum) {
    FrameField& field = fields_[index];
    field.bytes = {static_cast<std::uint8_t>(checksum >> 8), static_cast<std::uint8_t>(checksum)};
    field.value = fmt::format("0x{:04x}", checksum);
  }

  std::vector<FrameField>& fields() { return fields_; }
  // Appends the bytes of all fields from one on, as they stand in the frame.
  void AppendFrom(std::size_t first, std::vector<std::uint8_t>& bytes) const {
    for (std::size_t i = first; i < fields_.size(); ++i) {
      bytes.insert(bytes.end(), fields_[i].bytes.begin(), fields_[i].bytes.end());
    }
  }

 private:
  std::vector<FrameField> fields_;
  std::uint32_t size_ = 0;
};

void WriteEthernet(FieldWriter& write, const ProtocolHeadersSettings& h, bool destination_known) {
  const EthernetHeaderSettings& ethernet = h.EthernetHeaderSettings;
  FrameField& destination = write.Mac("Ethernet destination", ethernet.DestinationMacAddress);
  if (!destination_known) {
    destination.open = true;
    destination.value = "resolved at the start";
  }
  write.Mac("Ethernet source", ethernet.SourceMacAddress);
  if (h.VLANEnabled == IPPLAYOUT_ON) {
    const std::uint32_t priority = h.VLANPriorityLevel & 7U;
    const std::uint32_t vid = h.VID & 0xFFFU;
    write.Hex("VLAN TPID", h.TPID & 0xFFFFU, 2);
    write.Number("VLAN priority, CFI, id",
                 priority << 13 | (h.CFI == IPPLAYOUT_ON ? 0x1000U : 0U) | vid, 2,
                 fmt::format("{}, {}, {}", priority, h.CFI == IPPLAYOUT_ON ? 1 : 0, vid));
  }
  write.Hex("EtherType", ethernet.EProtocol & 0xFFFFU, 2);
}

void WriteIPv4(FieldWriter& write, const IPPlayParams& params, std::uint32_t udp_bytes) {
  const IPHeaderSettings& ip = params.ProtocolHeadersSettings.IPHeaderSettings;
  const bool router_alert = ip.IPProtocol == kRouterAlertProtocol;
  const std::uint32_t header_bytes = kIpv4HeaderBytes + (router_alert ? kIpv4RouterAlertBytes : 0);
  const bool dont_fragment = params.IPFragmentation == IPPLAYOUT_DONT_FRAGMENT;
  const std::size_t first = write.fields().size();
  write.Number("IPv4 version, header length", (ip.IPVersion * 16U + header_bytes / 4) & 0xFFU, 1,
               fmt::format("{}, {} bytes", ip.IPVersion & 0xF, header_bytes));
  write.Hex("IPv4 TOS", ip.TOS, 1);
  write.Number("IPv4 total length", header_bytes + udp_bytes, 2);
  write.Number("IPv4 identification", ip.Identification & 0xFFFFU, 2);
  write.Number("IPv4 flags, fragment offset", dont_fragment ? 0x4000 : 0, 2,
               dont_fragment ? "don't fragment, 0" : "0, 0");
  write.Number("IPv4 TTL", ip.TTL & 0xFFU, 1);
  write.Number("IPv4 protocol", ip.IPProtocol & 0xFFU, 1);
  const std::size_t checksum = write.fields().size();
  write.Hex("IPv4 header checksum", 0, 2);
  write.Ip("IPv4 source", ip.SourceIP);
  write.Ip("IPv4 destination", ip.DestinationIP);
  if (router_alert) {
    write.Hex("IPv4 router alert", 0x94040000, 4);
  }
  Octets header;
  write.AppendFrom(first, header);
  write.SetChecksum(checksum, Checksum(header));
}

void WriteIPv6(FieldWriter& write, const IPv6HeaderSettings& ip, std::uint32_t udp_bytes) {
  const std::uint32_t flow_label = ip.FlowLabel & 0xFFFFFU;
  write.Number(
      "IPv6 version, traffic class, flow label",
      (ip.IPv6Version & 0xFULL) << 28 | std::uint64_t{ip.TrafficClass} << 20 | flow_label, 4,
      fmt::format("{}, 0x{:02x}, 0x{:05x}", ip.IPv6Version & 0xF, ip.TrafficClass, flow_label));
  write.Number("IPv6 payload length", udp_bytes, 2);
  write.Number("IPv6 next header", ip.NextHeader, 1);
  write.Number("IPv6 hop limit", ip.HopLimit, 1);
  write.Ip("IPv6 source", ip.SourceIPv6);
  write.Ip("IPv6 destination", ip.DestinationIPv6);
}

void WriteRtp(FieldWriter& write, const RTPHeaderSettings& rtp) {
  const std::uint32_t first = rtp.Extension > 0 ? 0x80 : rtp.RTPVersion * 64U & 0xFFU;
  write.Number("RTP version", first, 1, fmt::format("{}", first >> 6));
  write.Number(
      "RTP payload type", rtp.PayloadType & 0xFFU, 1,
      fmt::format("{}{}", rtp.PayloadType & 0x7F, rtp.PayloadType & 0x80 ? " with marker" : ""));
  const auto random = [](FrameField& field, bool is_random) {
    field.open = is_random;
    if (is_random) {
      field.value = "random";
    }
  };
  random(write.Number("RTP sequence number", rtp.SequenceNumber & 0xFFFFU, 2),
         rtp.RandomSequenceNumber == IPPLAYOUT_ON);
  write.Number("RTP time stamp", 0, 4);
  random(write.Hex("RTP SSRC", rtp.SSRC, 4), rtp.RandomSSRC == IPPLAYOUT_ON);
}

// RFC 768 and, for IPv6, RFC 8200 section 8.1.
Octets PseudoHeader(const IPPlayParams& params, std::uint32_t udp_bytes) {
  const ProtocolHeadersSettings& h = params.ProtocolHeadersSettings;
  Octets header;
  const auto append = [&header](const auto& bytes) {
    header.insert(header.end(), std::begin(bytes), std::end(bytes));
  };
  if (params.IPLayerVersion == IPPLAYOUT_IPV6) {
    append(h.IPv6HeaderSettings.SourceIPv6);
    append(h.IPv6HeaderSettings.DestinationIPv6);
  } else {
    append(h.IPHeaderSettings.SourceIP);
    append(h.IPHeaderSettings.DestinationIP);
  }
  append(std::array<std::uint8_t, 4>{static_cast<std::uint8_t>(udp_bytes >> 8),
                                     static_cast<std::uint8_t>(udp_bytes), 0, kUdpProtocol});
  return header;
}

}  // namespace

std::vector<FrameField> FirstFrameFields(const IPPlayParams& params, bool destination_known,
                                         std::span<const std::uint8_t> payload) {
  const ProtocolHeadersSettings& h = params.ProtocolHeadersSettings;
  const bool rtp = params.ProtocolMode == IPPLAYOUT_RTP;
  const auto udp_bytes =
      static_cast<std::uint32_t>(kUdpHeaderBytes + (rtp ? kRtpHeaderBytes : 0) + payload.size());
  FieldWriter write;
  WriteEthernet(write, h, destination_known);
  if (params.IPLayerVersion == IPPLAYOUT_IPV6) {
    WriteIPv6(write, h.IPv6HeaderSettings, udp_bytes);
  } else {
    WriteIPv4(write, params, udp_bytes);
  }
  const std::size_t udp = write.fields().size();
  write.Number("UDP source port", h.UDPHeaderSettings.SourcePort & 0xFFFFU, 2);
  write.Number("UDP destination port", h.UDPHeaderSettings.DestinationPort & 0xFFFFU, 2);
  write.Number("UDP length", udp_bytes & 0xFFFFU, 2);
  const std::size_t checksum = write.fields().size();
  write.Hex("UDP checksum", 0, 2);
  if (rtp) {
    WriteRtp(write, h.RTPHeaderSettings);
  }

  Octets summed = PseudoHeader(params, udp_bytes);
  write.AppendFrom(udp, summed);
  summed.insert(summed.end(), payload.begin(), payload.end());
  // RFC 768: 0 says that there is no checksum, so a sum of 0 is sent as its other form.
  const std::uint16_t sum = Checksum(summed);
  write.SetChecksum(checksum, sum == 0 ? 0xFFFF : sum);
  const bool open =
      std::any_of(write.fields().begin() + static_cast<std::ptrdiff_t>(udp), write.fields().end(),
                  [](const FrameField& field) { return field.open; });
  if (open) {
    write.fields()[checksum].open = true;
    write.fields()[checksum].value = "follows from the random fields";
  }
  return std::move(write.fields());
}

}  // namespace ipplay
