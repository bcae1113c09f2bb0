// SPDX-License-Identifier: MIT
// The protocol layers of one playout.
#pragma once

#include <cstdint>
#include <memory>

#include "control/settings_store.h"
#include "payload/rtp_clock.h"
#include "protocol/ethernet_layer.h"
#include "protocol/ipv4_layer.h"
#include "protocol/ipv6_layer.h"
#include "protocol/rtp_layer.h"
#include "protocol/udp_layer.h"
#include "protocol/vlan_layer.h"

namespace ipplayout {

// The layers over a last Sender, as the settings ask for them. Layers that a playout does without
// are null.
class HeaderChain {
 public:
  // Builds the layers from the bottom up. Draws a random SSRC first, then a random sequence number.
  // RTP time stamps come from `clock`, or where it is null from one that runs at the bit rate.
  void Build(const PlayoutSettings& settings, CErrorManagerBase* errors,
             const CReplicationMgrBase* replication, Sender* bottom, CSwClock* clock = nullptr);

  // The first layer that a payload meets; null before Build.
  Sender* Top() const { return top_; }

 private:
  Layer* BuildEthernet(const PlayoutSettings& settings, CErrorManagerBase* errors, Sender* bottom);
  Layer* BuildIp(const PlayoutSettings& settings, CErrorManagerBase* errors, Sender* below);
  Layer* BuildRtp(const PlayoutSettings& settings, Sender* below, CSwClock* clock);

  std::unique_ptr<EthernetDataFlowOut> ethernet_;
  std::unique_ptr<VLANDataFlowOut> vlan_;
  std::unique_ptr<IpDataFlowOut> ipv4_;
  std::unique_ptr<IPv6DataFlowOut> ipv6_;
  std::unique_ptr<UdpDataFlowOut> udp_;
  std::unique_ptr<CZebRTPClock> rtp_clock_;
  std::unique_ptr<RtpDataFlowOut> rtp_;
  Sender* top_ = nullptr;
};

// Bytes that the headers take up which the settings ask for.
std::uint32_t HeaderLength(const PlayoutSettings& settings);

}  // namespace ipplayout
