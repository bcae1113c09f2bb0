// SPDX-License-Identifier: MIT
#include "protocol/replication_manager.h"

#include <algorithm>
#include <array>

#include "platform/random.h"
#include "protocol/big_endian.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kFlowLabelMask = 0xFFFFF;  // RFC 8200 section 3: 20 bits
constexpr std::uint32_t kPayloadTypeMask = 0x7F;   // RFC 3550 section 5.1: 7 bits
constexpr std::uint32_t kVlanIdMask = 0xFFF;       // IEEE 802.1Q: 12 bits
constexpr std::uint32_t kU16Mask = 0xFFFF;

// Adds as unsigned big-endian numbers, modulo the width of the array.
template <std::size_t N>
void AddBigEndian(std::array<std::uint8_t, N>& value, const std::uint8_t* increment) {
  StoreBigEndian<N>(LoadBigEndian<N>(value.data()) + LoadBigEndian<N>(increment), value.data());
}

template <>
void AddBigEndian<16>(platform::Ipv6Address& value, const std::uint8_t* increment) {
  const std::uint64_t old_low = LoadBigEndian<8>(value.data() + 8);
  const std::uint64_t low = old_low + LoadBigEndian<8>(increment + 8);
  const std::uint64_t carry = low < old_low ? 1 : 0;
  const std::uint64_t high = LoadBigEndian<8>(value.data()) + LoadBigEndian<8>(increment) + carry;
  StoreBigEndian<8>(high, value.data());
  StoreBigEndian<8>(low, value.data() + 8);
}

void AddByte(std::uint8_t& value, std::uint32_t increment) {
  value = static_cast<std::uint8_t>(value + increment);
}

template <std::size_t N>
void Copy(const std::uint8_t (&from)[N], std::array<std::uint8_t, N>& to) {
  std::copy_n(from, N, to.begin());
}

}  // namespace

void CZebReplicationMgr::SetIncrements(const ProtocolHeadersIncrements& increments,
                                       std::int32_t replication_count) {
  increments_ = increments;
  replication_count_ = replication_count;
  enabled_ = replication_count > 0;
}

void CZebReplicationMgr::SetHeaderSettings(const ProtocolHeadersSettings& settings) {
  settings_ = settings;
  const RTPHeaderSettings& rtp = settings_.RTPHeaderSettings;
  base_ssrc_ = rtp.RandomSSRC == IPPLAYOUT_ON ? platform::ProcessRandom().Next() : rtp.SSRC;
  sequence_counter_ = rtp.RandomSequenceNumber == IPPLAYOUT_ON ? platform::ProcessRandom().Next()
                                                               : rtp.SequenceNumber - 1;
  identification_counter_ = settings_.IPHeaderSettings.Identification - 1;
}

void CZebReplicationMgr::StartDatagram() {
  ++sequence_counter_;
  ++identification_counter_;
  copy_index_ = 0;
  if (enabled_) {
    LoadConfigured();
  }
}

void CZebReplicationMgr::LoadConfigured() {
  const EthernetHeaderSettings& ethernet = settings_.EthernetHeaderSettings;
  Copy(ethernet.DestinationMacAddress, current_.ethernet.destination_mac);
  Copy(ethernet.SourceMacAddress, current_.ethernet.source_mac);
  payload_ether_type_ = ethernet.EProtocol;
  current_.vlan.vlan_id = static_cast<std::uint16_t>(settings_.VID);
  PlaceEtherTypes();

  const IPHeaderSettings& ip = settings_.IPHeaderSettings;
  current_.ip.tos = ip.TOS;
  current_.ip.ttl = static_cast<std::uint8_t>(ip.TTL);
  Copy(ip.DestinationIP, current_.ip.destination);
  Copy(ip.SourceIP, current_.ip.source);
  current_.ip.protocol = ip.IPProtocol;
  current_.ip.identification = identification_counter_;

  const IPv6HeaderSettings& ipv6 = settings_.IPv6HeaderSettings;
  current_.ipv6.traffic_class = ipv6.TrafficClass;
  current_.ipv6.flow_label = ipv6.FlowLabel;
  current_.ipv6.next_header = ipv6.NextHeader;
  current_.ipv6.hop_limit = ipv6.HopLimit;
  Copy(ipv6.DestinationIPv6, current_.ipv6.destination);
  Copy(ipv6.SourceIPv6, current_.ipv6.source);

  current_.udp.destination_port = settings_.UDPHeaderSettings.DestinationPort;
  current_.udp.source_port = settings_.UDPHeaderSettings.SourcePort;
  current_.rtp.payload_type = settings_.RTPHeaderSettings.PayloadType;
  current_.rtp.ssrc = base_ssrc_;
  current_.rtp.sequence_number = sequence_counter_;
}

void CZebReplicationMgr::NextCopy() {
  ++copy_index_;
  StepEthernet();
  StepIp();
  StepIpv6();
  StepPortsAndRtp();
}

void CZebReplicationMgr::StepEthernet() {
  const EthernetHeaderIncrements& step = increments_.EthernetHeaderIncrements;
  AddBigEndian(current_.ethernet.destination_mac, step.DestinationMacAddressIncrement);
  AddBigEndian(current_.ethernet.source_mac, step.SourceMacAddressIncrement);
  payload_ether_type_ = (payload_ether_type_ + step.EProtocolIncrement) & kU16Mask;
  current_.vlan.vlan_id = static_cast<std::uint16_t>(
      (current_.vlan.vlan_id + increments_.VLANHeaderIncrements.VLANIdentifierIncrement) &
      kVlanIdMask);
  PlaceEtherTypes();
}

// With a tag the frame's EtherType is the TPID and the payload's stands inside the tag.
void CZebReplicationMgr::PlaceEtherTypes() {
  const bool tagged = settings_.VLANEnabled == IPPLAYOUT_ON;
  current_.ethernet.ether_type = tagged ? settings_.TPID : payload_ether_type_;
  current_.vlan.inner_ether_type =
      static_cast<std::uint16_t>(tagged ? payload_ether_type_ : settings_.TPID);
}

void CZebReplicationMgr::StepIp() {
  const IPHeaderIncrements& step = increments_.IPHeaderIncrements;
  AddByte(current_.ip.tos, step.TOSIncrement);
  AddByte(current_.ip.ttl, step.TTLIncrement);
  AddBigEndian(current_.ip.source, step.SourceIPIncrement);
  AddBigEndian(current_.ip.destination, step.DestinationIPIncrement);
  current_.ip.protocol += step.IPProtocolIncrement;
}

void CZebReplicationMgr::StepIpv6() {
  const IPv6HeaderIncrements& step = increments_.IPv6HeaderIncrements;
  current_.ipv6.traffic_class += step.TrafficClassIncrement;
  current_.ipv6.flow_label = (current_.ipv6.flow_label + step.FlowLabelIncrement) & kFlowLabelMask;
  AddByte(current_.ipv6.next_header, step.NextHeaderIncrement);
  AddByte(current_.ipv6.hop_limit, step.HopLimitIncrement);
  AddBigEndian(current_.ipv6.source, step.SourceIPv6AddressIncrement);
  AddBigEndian(current_.ipv6.destination, step.DestinationIPv6AddressIncrement);
}

void CZebReplicationMgr::StepPortsAndRtp() {
  const UDPHeaderIncrements& udp = increments_.UDPHeaderIncrements;
  current_.udp.destination_port =
      (current_.udp.destination_port + udp.DestinationPortIncrement) & kU16Mask;
  current_.udp.source_port = (current_.udp.source_port + udp.SourcePortIncrement) & kU16Mask;
  const RTPHeaderIncrements& rtp = increments_.RTPHeaderIncrements;
  current_.rtp.payload_type =
      (current_.rtp.payload_type + rtp.PayloadTypeIncrement) & kPayloadTypeMask;
  current_.rtp.ssrc += rtp.SSRCIncrement;
}

std::uint32_t CZebReplicationMgr::GetVlanFields(std::uint32_t& out) const {
  out = std::uint32_t{current_.vlan.vlan_id} << 16 | current_.vlan.inner_ether_type;
  return out;
}

}  // namespace ipplayout
