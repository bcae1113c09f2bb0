// SPDX-License-Identifier: MIT
// Tag of IEEE 802.1Q clause 9.6; its TPID is the EtherType that the Ethernet layer writes.
//
//   offset  size
//       14     2  TCI: priority (3 bits), CFI (1), VLAN identifier (12)
//       16     2  EtherType of the payload
#pragma once

#include <cstdint>

#include "protocol/layer.h"
#include "protocol/pdu.h"

namespace ipplayout {

struct VlanTagSpec {
  bool cfi = false;
  std::uint32_t priority = 0;  // low 3 bits sent
  std::uint32_t vlan_id = 0;   // low 12 bits sent
};

class VLANDataFlowOut final : public Layer {
 public:
  static constexpr std::uint32_t kHeaderLength = 4;

  VLANDataFlowOut(const VlanTagSpec& spec, Sender* next, std::uint16_t inner_ether_type);

  bool Send(PDU& frame) override;

 private:
  VlanTagSpec spec_;
  std::uint16_t inner_ether_type_;
};

}  // namespace ipplayout
