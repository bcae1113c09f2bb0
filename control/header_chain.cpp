// SPDX-License-Identifier: MIT
#include "control/header_chain.h"

#include <algorithm>
#include <cstddef>

#include "control/datagram_layout.h"
#include "platform/random.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kRtpClockRate = 90000;  // RFC 3551 section 4.5: video/MP2T
constexpr double kHighestClockedRate = 1e18;    // bit/s; a frame lasts no tick long before

template <std::size_t N>
std::array<std::uint8_t, N> ToArray(const std::uint8_t (&bytes)[N]) {
  std::array<std::uint8_t, N> result;
  std::copy_n(bytes, N, result.begin());
  return result;
}

EthernetFlowSpec EthernetSpec(const ProtocolHeadersSettings& headers, CErrorManagerBase* errors) {
  EthernetFlowSpec spec;
  spec.source = ToArray(headers.EthernetHeaderSettings.SourceMacAddress);
  spec.destination = ToArray(headers.EthernetHeaderSettings.DestinationMacAddress);
  const std::uint32_t ether_type =
      headers.VLANEnabled == IPPLAYOUT_ON ? headers.TPID : headers.EthernetHeaderSettings.EProtocol;
  spec.ether_type.WriteU16(static_cast<std::uint16_t>(ether_type), 0);
  spec.errors = errors;
  return spec;
}

IpFlowSpec IpSpec(const IPPlayParams& params, CErrorManagerBase* errors) {
  const IPHeaderSettings& ip = params.ProtocolHeadersSettings.IPHeaderSettings;
  IpFlowSpec spec;
  spec.ttl = static_cast<std::uint8_t>(ip.TTL);
  spec.protocol = ip.IPProtocol;
  spec.source = ToArray(ip.SourceIP);
  spec.destination = ToArray(ip.DestinationIP);
  spec.version = ip.IPVersion;
  spec.tos = ip.TOS;
  spec.dont_fragment = params.IPFragmentation == IPPLAYOUT_DONT_FRAGMENT;
  spec.identification = static_cast<std::uint16_t>(ip.Identification);
  spec.errors = errors;
  return spec;
}

UdpSettings UdpSpec(const IPPlayParams& params, CErrorManagerBase* errors) {
  const ProtocolHeadersSettings& headers = params.ProtocolHeadersSettings;
  UdpSettings spec;
  spec.source_port = headers.UDPHeaderSettings.SourcePort;
  spec.destination_port = headers.UDPHeaderSettings.DestinationPort;
  spec.source_ip = ToArray(headers.IPHeaderSettings.SourceIP);
  spec.destination_ip = ToArray(headers.IPHeaderSettings.DestinationIP);
  spec.source_ipv6 = ToArray(headers.IPv6HeaderSettings.SourceIPv6);
  spec.destination_ipv6 = ToArray(headers.IPv6HeaderSettings.DestinationIPv6);
  spec.errors = errors;
  spec.is_ipv4 = params.IPLayerVersion == IPPLAYOUT_IPV4;
  return spec;
}

}  // namespace

void HeaderChain::Build(const PlayoutSettings& settings, CErrorManagerBase* errors,
                        const CReplicationMgrBase* replication, Sender* bottom, CSwClock* clock) {
  Layer* ip = BuildIp(settings, errors, BuildEthernet(settings, errors, bottom));
  udp_ = std::make_unique<UdpDataFlowOut>(UdpSpec(settings.params, errors), ip);
  top_ = settings.params.ProtocolMode == IPPLAYOUT_RTP ? BuildRtp(settings, udp_.get(), clock)
                                                       : udp_.get();
  for (Layer* layer : std::initializer_list<Layer*>{ethernet_.get(), vlan_.get(), ipv4_.get(),
                                                    ipv6_.get(), udp_.get(), rtp_.get()}) {
    if (layer != nullptr) {
      layer->SetReplicationManager(replication);
    }
  }
}

Layer* HeaderChain::BuildEthernet(const PlayoutSettings& settings, CErrorManagerBase* errors,
                                  Sender* bottom) {
  const ProtocolHeadersSettings& headers = settings.params.ProtocolHeadersSettings;
  ethernet_ = std::make_unique<EthernetDataFlowOut>(EthernetSpec(headers, errors), bottom);
  if (headers.VLANEnabled != IPPLAYOUT_ON) {
    return ethernet_.get();
  }
  const VlanTagSpec tag{headers.CFI == IPPLAYOUT_ON, headers.VLANPriorityLevel, headers.VID};
  vlan_ = std::make_unique<VLANDataFlowOut>(
      tag, ethernet_.get(), static_cast<std::uint16_t>(headers.EthernetHeaderSettings.EProtocol));
  return vlan_.get();
}

Layer* HeaderChain::BuildIp(const PlayoutSettings& settings, CErrorManagerBase* errors,
                            Sender* below) {
  if (settings.params.IPLayerVersion == IPPLAYOUT_IPV4) {
    ipv4_ = std::make_unique<IpDataFlowOut>(IpSpec(settings.params, errors), below);
    return ipv4_.get();
  }
  const IPv6DataFlowSpecifier specifier(settings.params.ProtocolHeadersSettings.IPv6HeaderSettings);
  ipv6_ = std::make_unique<IPv6DataFlowOut>(specifier, below);
  return ipv6_.get();
}

Layer* HeaderChain::BuildRtp(const PlayoutSettings& settings, Sender* below, CSwClock* clock) {
  const RTPHeaderSettings& header = settings.params.ProtocolHeadersSettings.RTPHeaderSettings;
  if (clock == nullptr) {
    // In 64 bits: from 4.29 Gbit/s up a rate taken modulo 2^32 would have the clock run too fast.
    const double rate = std::min(StreamBitRate(settings), kHighestClockedRate);
    rtp_clock_ = std::make_unique<CZebRTPClock>(kRtpClockRate, static_cast<std::uint64_t>(rate),
                                                settings.params.IPPacketSize, 0);
    clock = rtp_clock_.get();
  }
  RtpSettings rtp;
  rtp.version = header.RTPVersion;
  rtp.payload_type = header.PayloadType;
  rtp.extension_flag = header.Extension > 0 ? 1 : 0;
  rtp.ssrc = header.RandomSSRC == IPPLAYOUT_ON ? platform::ProcessRandom().Next() : header.SSRC;
  rtp.initial_sequence_number = header.RandomSequenceNumber == IPPLAYOUT_ON
                                    ? platform::ProcessRandom().Next()
                                    : header.SequenceNumber;
  rtp.clock = clock;
  rtp_ = std::make_unique<RtpDataFlowOut>(rtp, below);
  return rtp_.get();
}

std::uint32_t HeaderLength(const PlayoutSettings& settings) {
  HeaderChain chain;
  chain.Build(settings, nullptr, nullptr, nullptr);
  return chain.Top()->GetHeaderLength();
}

}  // namespace ipplayout
