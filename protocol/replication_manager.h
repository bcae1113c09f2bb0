// SPDX-License-Identifier: MIT
// Turns one stream into several parallel ones whose header fields differ by configured steps.
#pragma once

#include <cstdint>

#include "ipplayout/ipplayout.h"
#include "platform/addresses.h"

namespace ipplayout {

struct EthernetFields {
  platform::MacAddress destination_mac{};
  platform::MacAddress source_mac{};
  std::uint32_t ether_type = 0;
};

struct IpFields {
  std::uint8_t tos = 0;
  std::uint8_t ttl = 0;
  platform::Ipv4Address destination{};
  platform::Ipv4Address source{};
  std::uint32_t protocol = 0;
  std::uint32_t identification = 0;  // low 16 bits used
};

struct Ipv6Fields {
  std::uint32_t traffic_class = 0;  // low 8 bits used
  std::uint32_t flow_label = 0;
  std::uint8_t next_header = 0;
  std::uint8_t hop_limit = 0;
  platform::Ipv6Address destination{};
  platform::Ipv6Address source{};
};

struct UdpFields {
  std::uint32_t destination_port = 0;
  std::uint32_t source_port = 0;
};

struct RtpFields {
  std::uint32_t payload_type = 0;
  std::uint32_t ssrc = 0;
  std::uint32_t sequence_number = 0;
};

struct VlanFields {
  std::uint16_t inner_ether_type = 0;
  std::uint16_t vlan_id = 0;
};

// The header values of the copy about to be sent, as the layers ask for them.
class CReplicationMgrBase {
 public:
  virtual std::uint8_t IsEnabled() const = 0;
  // Back to the first copy, for a new datagram.
  virtual void StartDatagram() = 0;
  virtual std::int32_t GetReplicationCount() const = 0;
  virtual void NextCopy() = 0;
  virtual std::uint32_t CopyIndex() const = 0;
  virtual void GetEthernetFields(EthernetFields& out) const = 0;
  virtual void GetIpFields(IpFields& out) const = 0;
  virtual void GetIpv6Fields(Ipv6Fields& out) const = 0;
  virtual void GetUdpFields(UdpFields& out) const = 0;
  virtual void GetRtpFields(RtpFields& out) const = 0;
  // Inner EtherType in the low half, VLAN identifier in the high half; also the result.
  virtual std::uint32_t GetVlanFields(std::uint32_t& out) const = 0;
  virtual ~CReplicationMgrBase() = default;
};

// Loaded by IPStart before the pump runs, then used by the pump thread alone.
class CZebReplicationMgr final : public CReplicationMgrBase {
 public:
  std::uint8_t IsEnabled() const override { return enabled_ ? 1 : 0; }
  void StartDatagram() override;
  std::int32_t GetReplicationCount() const override { return replication_count_; }
  void NextCopy() override;
  std::uint32_t CopyIndex() const override { return copy_index_; }
  void GetEthernetFields(EthernetFields& out) const override { out = current_.ethernet; }
  void GetIpFields(IpFields& out) const override { out = current_.ip; }
  void GetIpv6Fields(Ipv6Fields& out) const override { out = current_.ipv6; }
  void GetUdpFields(UdpFields& out) const override { out = current_.udp; }
  void GetRtpFields(RtpFields& out) const override { out = current_.rtp; }
  std::uint32_t GetVlanFields(std::uint32_t& out) const override;

  // A count of 0 or less switches replication off.
  void SetIncrements(const ProtocolHeadersIncrements& increments, std::int32_t replication_count);
  void SetHeaderSettings(const ProtocolHeadersSettings& settings);

 private:
  struct Fields {
    EthernetFields ethernet;
    IpFields ip;
    Ipv6Fields ipv6;
    UdpFields udp;
    RtpFields rtp;
    VlanFields vlan;
  };

  void LoadConfigured();
  void StepEthernet();
  void StepIp();
  void StepIpv6();
  void StepPortsAndRtp();
  void PlaceEtherTypes();

  std::uint32_t copy_index_ = 0;
  bool enabled_ = false;
  Fields current_;
  // EtherType (untagged) that the increments accumulate on; `current_` holds the TPID in its place
  // when there is a tag.
  std::uint32_t payload_ether_type_ = 0;
  ProtocolHeadersSettings settings_{};
  ProtocolHeadersIncrements increments_{};
  std::int32_t replication_count_ = 0;
  std::uint32_t identification_counter_ = 0;
  std::uint32_t base_ssrc_ = 0;
  std::uint32_t sequence_counter_ = 0;
};

}  // namespace ipplayout
