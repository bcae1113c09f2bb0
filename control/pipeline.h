// SPDX-License-Identifier: MIT
// The objects of one playout.
#pragma once

#include <memory>

#include "control/settings_store.h"
#include "payload/rtp_clock.h"
#include "protocol/ethernet_layer.h"
#include "protocol/ipv4_layer.h"
#include "protocol/ipv6_layer.h"
#include "protocol/rtp_layer.h"
#include "protocol/udp_layer.h"
#include "protocol/vlan_layer.h"
#include "transmit/pcap_rt_interface.h"

namespace ipplayout {

// The chain of layers over one capture interface, as the settings ask for it. Layers that a playout
// does without are null.
class Pipeline {
 public:
  // Builds the layers from the bottom up. Draws a random SSRC first, then a random sequence number.
  void BuildChain(const PlayoutSettings& settings, CErrorManagerBase* errors,
                  const CReplicationMgrBase* replication);

  // The first layer that a payload meets; null before BuildChain.
  Sender* Top() const { return top_; }

  std::unique_ptr<PcapRtInterface> capture_interface;

 private:
  Layer* BuildEthernet(const PlayoutSettings& settings, CErrorManagerBase* errors);
  Layer* BuildIp(const PlayoutSettings& settings, CErrorManagerBase* errors, Sender* below);
  Layer* BuildRtp(const PlayoutSettings& settings, Sender* below);

  std::unique_ptr<EthernetDataFlowOut> ethernet_;
  std::unique_ptr<VLANDataFlowOut> vlan_;
  std::unique_ptr<IpDataFlowOut> ipv4_;
  std::unique_ptr<IPv6DataFlowOut> ipv6_;
  std::unique_ptr<UdpDataFlowOut> udp_;
  std::unique_ptr<CZebRTPClock> rtp_clock_;
  std::unique_ptr<RtpDataFlowOut> rtp_;
  Sender* top_ = nullptr;
};

}  // namespace ipplayout
