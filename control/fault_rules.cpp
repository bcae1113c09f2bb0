// SPDX-License-Identifier: MIT
#include "control/fault_rules.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>

#include "control/value_checks.h"
#include "payload/fault_insertion.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kMostDatagrams = 1'000'000;
constexpr std::uint32_t kMostBits = FaultInsertion::kMostFlips;

constexpr std::uint32_t kKinds[] = {IPPLAYOUT_DID_LOSE,        IPPLAYOUT_DID_DELAY,
                                    IPPLAYOUT_DID_DUPLICATE,   IPPLAYOUT_DID_CORRUPT,
                                    IPPLAYOUT_DID_IP_CHECKSUM, IPPLAYOUT_DID_UDP_CHECKSUM};

Failure CheckChances(const IpPlayoutFaults& faults) {
  const struct {
    const char* name;
    double value;
  } kChances[] = {{"Lose", faults.Lose},
                  {"TurnsBad", faults.TurnsBad},
                  {"TurnsGood", faults.TurnsGood},
                  {"LoseWhileBad", faults.LoseWhileBad},
                  {"Delay", faults.Delay},
                  {"Duplicate", faults.Duplicate},
                  {"Corrupt", faults.Corrupt},
                  {"IpChecksum", faults.IpChecksum},
                  {"UdpChecksum", faults.UdpChecksum}};
  for (const auto& chance : kChances) {
    if (!(chance.value >= 0 && chance.value <= 1)) {
      return Refuse(chance.name, Text(chance.value), "0 to 1");
    }
  }
  if (faults.TurnsBad > 0 && faults.TurnsGood == 0) {
    return {IPPLAYOUT_BAD_VALUE, "TurnsGood is 0 with TurnsBad above 0; it can be above 0 to 1"};
  }
  return {};
}

}  // namespace

Failure CheckFaults(const IpPlayoutSettings& settings) {
  const IpPlayoutFaults& faults = settings.Faults;
  if (Failure failure = CheckChances(faults)) {
    return failure;
  }
  if (Failure failure =
          CheckRanges({{"DelayDistance", faults.DelayDistance, 1, kMostDatagrams},
                       {"CorruptBits", faults.CorruptBits, 1, kMostBits},
                       {"ClosesHoles", faults.ClosesHoles, IPPLAYOUT_OFF, IPPLAYOUT_ON}})) {
    return failure;
  }
  const OrderRules rules(settings);
  const struct {
    double chance;
    std::uint32_t what;
  } kLimited[] = {{faults.Delay, IPPLAYOUT_DID_DELAY},
                  {faults.IpChecksum, IPPLAYOUT_DID_IP_CHECKSUM},
                  {faults.UdpChecksum, IPPLAYOUT_DID_UDP_CHECKSUM}};
  for (const auto& row : kLimited) {
    if (row.chance > 0) {
      if (Failure failure = rules.Check({0, row.what, 1, 0, 0, 0, 0})) {
        return failure;
      }
    }
  }
  return {};
}

OrderRules::OrderRules(const IpPlayoutSettings& settings)
    : is_rtp_(settings.Params.ProtocolMode == IPPLAYOUT_RTP),
      is_ipv4_(settings.Params.IPLayerVersion == IPPLAYOUT_IPV4),
      is_socket_(settings.To == IPPLAYOUT_TO_SOCKET) {}

Failure OrderRules::Check(const IpPlayoutOrder& order) const {
  const std::uint32_t what = order.What;
  const bool is_checksum = what == IPPLAYOUT_DID_IP_CHECKSUM || what == IPPLAYOUT_DID_UDP_CHECKSUM;
  const bool has_length = what == IPPLAYOUT_DID_LOSE && order.Count == 0;
  if (std::find(std::begin(kKinds), std::end(kKinds), what) == std::end(kKinds)) {
    return Refuse("What", std::to_string(what),
                  "IPPLAYOUT_DID_LOSE, ..._DELAY, ..._DUPLICATE, ..._CORRUPT, ..._IP_CHECKSUM or "
                  "..._UDP_CHECKSUM");
  }
  if (what == IPPLAYOUT_DID_DELAY && !is_rtp_) {
    return {IPPLAYOUT_BAD_VALUE, "a delay needs RTP (ProtocolMode 1)"};
  }
  if (what == IPPLAYOUT_DID_IP_CHECKSUM && !is_ipv4_) {
    return {IPPLAYOUT_BAD_VALUE, "a wrong IP checksum needs IPv4 (IPLayerVersion 0)"};
  }
  if (is_checksum && is_socket_) {
    return {IPPLAYOUT_BAD_VALUE, "a wrong checksum is what a UDP socket cannot do; an adapter can"};
  }
  if (has_length && order.LengthNs <= 0) {
    return Refuse("LengthNs", std::to_string(order.LengthNs), "above 0, or Count can");
  }
  const bool is_corrupt = what == IPPLAYOUT_DID_CORRUPT;
  return CheckRanges({{"Count", order.Count, has_length ? 0 : 1, kMostDatagrams},
                      {"Amount", order.Amount, 0, is_corrupt ? kMostBits : kMostDatagrams}});
}

}  // namespace ipplayout
