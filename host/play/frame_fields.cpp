// SPDX-License-Identifier: MIT
#include "host/play/frame_fields.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/base/address.h"

namespace ipplay {
namespace {

constexpr std::uint32_t kRouterAlertProtocol = 2;
constexpr std::uint8_t kUdpProtocol = 17;

// RFC 1071.
class InternetSum {
 public:
  void Add(std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t byte : bytes) {
      sum_ += high_ ? std::uint64_t{byte} << 8 : byte;
      high_ = !high_;
    }
  }
  std::uint16_t Checksum() const {
    std::uint64_t sum = sum_;
    while (sum > 0xFFFF) {
      sum = (sum >> 16) + (sum & 0xFFFF);
    }
    return static_cast<std::uint16_t>(~sum);
  }

 private:
  std::uint64_t sum_ = 0;
  bool high_ = true;
};

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
  // All fields from one on, as they stand in the frame.
  InternetSum SumFrom(std::size_t first) const {
    InternetSum sum;
    for (std::size_t i = first; i < fields_.size(); ++i) {
      sum.Add(fields_[i].bytes);
    }
    return sum;
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
  if (h.VLANEnabled == 1) {
    const std::uint32_t priority = h.VLANPriorityLevel & 7U;
    const std::uint32_t vid = h.VID & 0xFFFU;
    write.Hex("VLAN TPID", h.TPID & 0xFFFFU, 2);
    write.Number("VLAN priority, CFI, id", priority << 13 | (h.CFI == 1 ? 0x1000U : 0U) | vid, 2,
                 fmt::format("{}, {}, {}", priority, h.CFI == 1 ? 1 : 0, vid));
  }
  write.Hex("EtherType", ethernet.EProtocol & 0xFFFFU, 2);
}

void WriteIPv4(FieldWriter& write, const IPPlayParams& params, std::uint32_t udp_bytes) {
  const IPHeaderSettings& ip = params.ProtocolHeadersSettings.IPHeaderSettings;
  const bool router_alert = ip.IPProtocol == kRouterAlertProtocol;
  const std::uint32_t words = router_alert ? 6 : 5;
  const bool dont_fragment = params.IPFragmentation == 0;
  const std::size_t first = write.fields().size();
  write.Number("IPv4 version, header length", (ip.IPVersion * 16U + words) & 0xFFU, 1,
               fmt::format("{}, {} bytes", ip.IPVersion & 0xF, words * 4));
  write.Hex("IPv4 TOS", ip.TOS, 1);
  write.Number("IPv4 total length", words * 4 + udp_bytes, 2);
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
  write.SetChecksum(checksum, write.SumFrom(first).Checksum());
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
         rtp.RandomSequenceNumber == 1);
  write.Number("RTP time stamp", 0, 4);
  random(write.Hex("RTP SSRC", rtp.SSRC, 4), rtp.RandomSSRC == 1);
}

// RFC 768 and, for IPv6, RFC 8200 section 8.1.
InternetSum PseudoHeader(const IPPlayParams& params, std::uint32_t udp_bytes) {
  const ProtocolHeadersSettings& h = params.ProtocolHeadersSettings;
  InternetSum sum;
  if (params.IPLayerVersion == 1) {
    sum.Add(h.IPv6HeaderSettings.SourceIPv6);
    sum.Add(h.IPv6HeaderSettings.DestinationIPv6);
  } else {
    sum.Add(h.IPHeaderSettings.SourceIP);
    sum.Add(h.IPHeaderSettings.DestinationIP);
  }
  const std::array<std::uint8_t, 4> rest{static_cast<std::uint8_t>(udp_bytes >> 8),
                                         static_cast<std::uint8_t>(udp_bytes), 0, kUdpProtocol};
  sum.Add(rest);
  return sum;
}

}  // namespace

std::vector<FrameField> FirstFrameFields(const IPPlayParams& params, bool destination_known,
                                         std::span<const std::uint8_t> payload) {
  const ProtocolHeadersSettings& h = params.ProtocolHeadersSettings;
  const bool rtp = params.ProtocolMode == 1;
  const auto udp_bytes = static_cast<std::uint32_t>(8 + (rtp ? 12 : 0) + payload.size());
  FieldWriter write;
  WriteEthernet(write, h, destination_known);
  if (params.IPLayerVersion == 1) {
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

  InternetSum sum = PseudoHeader(params, udp_bytes);
  bool open = false;
  for (std::size_t i = udp; i < write.fields().size(); ++i) {
    sum.Add(write.fields()[i].bytes);
    open = open || write.fields()[i].open;
  }
  sum.Add(payload);
  write.SetChecksum(checksum, sum.Checksum() == 0 ? 0xFFFF : sum.Checksum());
  if (open) {
    write.fields()[checksum].open = true;
    write.fields()[checksum].value = "follows from the random fields";
  }
  return std::move(write.fields());
}

}  // namespace ipplay
