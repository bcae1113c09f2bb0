// SPDX-License-Identifier: MIT
#include "protocol/ipv6_layer.h"

#include <algorithm>

namespace ipplayout {
namespace {

constexpr std::uint32_t kFirstWordOffset = 0;
constexpr std::uint32_t kPayloadLengthOffset = 4;
constexpr std::uint32_t kNextHeaderOffset = 6;
constexpr std::uint32_t kHopLimitOffset = 7;
constexpr std::uint32_t kSourceOffset = 8;
constexpr std::uint32_t kDestinationOffset = 24;

// A larger label is cut to its field, so that it cannot spill into the traffic class.
constexpr std::uint32_t kFlowLabelMask = 0xFFFFF;

}  // namespace

IPv6DataFlowSpecifier::IPv6DataFlowSpecifier(const IPv6HeaderSettings& settings)
    : version_(settings.IPv6Version),
      traffic_class_(settings.TrafficClass),
      flow_label_(settings.FlowLabel),
      payload_length_(static_cast<std::uint16_t>(settings.Ipv6PayloadLength)),
      next_header_(settings.NextHeader),
      hop_limit_(settings.HopLimit),
      source_{},
      destination_{} {
  std::copy_n(settings.SourceIPv6, source_.size(), source_.begin());
  std::copy_n(settings.DestinationIPv6, destination_.size(), destination_.begin());
}

IPv6DataFlowOut::IPv6DataFlowOut(const IPv6DataFlowSpecifier& specifier, Sender* next)
    : Layer(next, kHeaderLength), version_(specifier.Version()), header_(kHeaderLength) {
  Ipv6Fields fields;
  fields.traffic_class = specifier.TrafficClass();
  fields.flow_label = specifier.FlowLabel();
  fields.next_header = static_cast<std::uint8_t>(specifier.NextHeader());
  fields.hop_limit = specifier.HopLimit();
  fields.source = specifier.SourceAddress();
  fields.destination = specifier.DestinationAddress();
  WriteFields(fields);
}

void IPv6DataFlowOut::WriteFields(const Ipv6Fields& fields) {
  header_.WriteU32(std::uint32_t{version_} << 28 | (fields.traffic_class & 0xFF) << 20 |
                       (fields.flow_label & kFlowLabelMask),
                   kFirstWordOffset);
  header_.WriteByte(fields.next_header, kNextHeaderOffset);
  header_.WriteByte(fields.hop_limit, kHopLimitOffset);
  header_.WriteBytes(fields.source.data(), 16, kSourceOffset);
  header_.WriteBytes(fields.destination.data(), 16, kDestinationOffset);
}

bool IPv6DataFlowOut::Send(PDU& frame) {
  if (IsReplicated()) {
    Ipv6Fields fields;
    Replication().GetIpv6Fields(fields);
    WriteFields(fields);
  }
  header_.WriteU16(static_cast<std::uint16_t>(frame.Length() - GetHeaderLength()),
                   kPayloadLengthOffset);
  frame.WritePdu(header_, HeaderOffset());
  return SendNext(frame);
}

}  // namespace ipplayout
