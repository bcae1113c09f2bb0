// SPDX-License-Identifier: MIT
#include "protocol/vlan_layer.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kVlanIdMask = 0xFFF;
constexpr std::uint32_t kCfi = 0x1000;
constexpr std::uint32_t kPriorityShift = 13;

}  // namespace

VLANDataFlowOut::VLANDataFlowOut(const VlanTagSpec& spec, Sender* next,
                                 std::uint16_t inner_ether_type)
    : Layer(next, kHeaderLength), spec_(spec), inner_ether_type_(inner_ether_type) {}

bool VLANDataFlowOut::Send(PDU& frame) {
  std::uint32_t vlan_id = spec_.vlan_id;
  std::uint32_t inner_ether_type = inner_ether_type_;
  if (IsReplicated()) {
    std::uint32_t fields = 0;
    Replication().GetVlanFields(fields);
    vlan_id = fields >> 16;
    inner_ether_type = fields & 0xFFFF;
  }
  const std::uint32_t tci =
      (vlan_id & kVlanIdMask) | (spec_.cfi ? kCfi : 0) | spec_.priority << kPriorityShift;
  frame.WriteU32(tci << 16 | inner_ether_type, HeaderOffset());
  return SendNext(frame);
}

}  // namespace ipplayout
