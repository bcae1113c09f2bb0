// SPDX-License-Identifier: MIT
#include "host/play/plan_headers.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace ipplay {
namespace {

constexpr std::uint32_t kEtherTypeIPv4 = 0x0800;
constexpr std::uint32_t kEtherTypeIPv6 = 0x86DD;

template <std::size_t N, std::size_t M>
void Copy(const std::array<std::uint8_t, N>& from, std::uint8_t (&to)[M]) {
  static_assert(M <= N);
  std::copy_n(from.begin(), M, std::begin(to));
}

// Whether an address option is of the version that the target has.
std::optional<Failure> CheckVersion(const char* name, const IpAddress& address, bool v6) {
  if (address.is_v6 == v6) {
    return std::nullopt;
  }
  return UsageFailure(
      fmt::format("{}: the target is IPv{}; give an address of that version", name, v6 ? 6 : 4));
}

void PlanEthernet(const PlayOptions& options, const Path& path, ProtocolHeadersSettings& headers) {
  const bool v6 = options.to.address.is_v6;
  EthernetHeaderSettings& ethernet = headers.EthernetHeaderSettings;
  Copy(options.src_mac.value_or(path.adapter.mac), ethernet.SourceMacAddress);
  const MacAddress resolved = path.destination.value_or(MacAddress{});
  Copy(options.dst_mac.value_or(resolved), ethernet.DestinationMacAddress);
  ethernet.EProtocol = options.ether_type.value_or(v6 ? kEtherTypeIPv6 : kEtherTypeIPv4);
  headers.VLANEnabled = options.vlan ? IPPLAYOUT_ON : IPPLAYOUT_OFF;
  headers.TPID = options.vlan_tpid;
  headers.VLANPriorityLevel = static_cast<std::uint8_t>(options.vlan_priority);
  headers.CFI = options.vlan_cfi ? IPPLAYOUT_ON : IPPLAYOUT_OFF;
  headers.VID = options.vlan.value_or(0);
}

std::optional<Failure> PlanIp(const PlayOptions& options, const Path& path,
                              ProtocolHeadersSettings& headers) {
  const bool v6 = options.to.address.is_v6;
  const IpAddress destination = options.dst_ip.value_or(options.to.address);
  if (auto failure = CheckVersion("--dst-ip", destination, v6)) {
    return failure;
  }
  const auto source = options.src_ip ? options.src_ip : path.source;
  if (!source) {
    return UsageFailure(fmt::format("--src-ip is required: {} has no IPv{} address to send from",
                                    path.adapter.name, v6 ? 6 : 4));
  }
  if (auto failure = CheckVersion("--src-ip", *source, v6)) {
    return failure;
  }
  if (options.tos && options.dscp) {
    return UsageFailure("--tos and --dscp exclude each other; give one");
  }
  const auto tos =
      static_cast<std::uint8_t>(options.dscp ? *options.dscp << 2 : options.tos.value_or(0));
  if (v6) {
    IPv6HeaderSettings& ip = headers.IPv6HeaderSettings;
    ip.IPv6Version = static_cast<std::uint8_t>(options.ip_version.value_or(6));
    ip.TrafficClass = tos;
    ip.FlowLabel = options.flow_label;
    ip.NextHeader = static_cast<std::uint8_t>(options.protocol);
    ip.HopLimit = static_cast<std::uint8_t>(options.ttl);
    Copy(source->bytes, ip.SourceIPv6);
    Copy(destination.bytes, ip.DestinationIPv6);
    return std::nullopt;
  }
  IPHeaderSettings& ip = headers.IPHeaderSettings;
  ip.IPVersion = static_cast<std::uint8_t>(options.ip_version.value_or(4));
  ip.TOS = tos;
  ip.TTL = options.ttl;
  ip.Identification = options.identification.value_or(0);
  ip.IPProtocol = options.protocol;
  Copy(source->bytes, ip.SourceIP);
  Copy(destination.bytes, ip.DestinationIP);
  return std::nullopt;
}

void PlanUdpAndRtp(const PlayOptions& options, ProtocolHeadersSettings& headers) {
  headers.UDPHeaderSettings.DestinationPort = options.dst_port.value_or(options.to.port);
  headers.UDPHeaderSettings.SourcePort = options.src_port.value_or(options.to.port);
  if (!options.to.rtp) {
    return;
  }
  RTPHeaderSettings& rtp = headers.RTPHeaderSettings;
  const StartValue sequence = options.sequence.value_or(StartValue{});
  rtp.RTPVersion = static_cast<std::uint8_t>(options.rtp_version);
  rtp.Extension = options.rtp_extension ? 1 : 0;
  rtp.PayloadType = options.payload_type;
  rtp.RandomSequenceNumber = sequence.random ? IPPLAYOUT_ON : IPPLAYOUT_OFF;
  rtp.SequenceNumber = sequence.value;
  rtp.RandomSSRC = options.ssrc.random ? IPPLAYOUT_ON : IPPLAYOUT_OFF;
  rtp.SSRC = options.ssrc.value;
}

void PlanAddressStep(const Step& step, ProtocolHeadersIncrements& increments) {
  const bool destination = step.field == StepField::kDstIp;
  if (step.ip.is_v6) {
    Copy(step.ip.bytes, destination
                            ? increments.IPv6HeaderIncrements.DestinationIPv6AddressIncrement
                            : increments.IPv6HeaderIncrements.SourceIPv6AddressIncrement);
  } else {
    Copy(step.ip.bytes, destination ? increments.IPHeaderIncrements.DestinationIPIncrement
                                    : increments.IPHeaderIncrements.SourceIPIncrement);
  }
}

void PlanStep(const Step& step, ProtocolHeadersIncrements& increments) {
  EthernetHeaderIncrements& ethernet = increments.EthernetHeaderIncrements;
  const auto byte = static_cast<std::uint8_t>(step.number);
  switch (step.field) {
    case StepField::kDstMac:
      return Copy(step.mac, ethernet.DestinationMacAddressIncrement);
    case StepField::kSrcMac:
      return Copy(step.mac, ethernet.SourceMacAddressIncrement);
    case StepField::kDstIp:
    case StepField::kSrcIp:
      return PlanAddressStep(step, increments);
    case StepField::kTtl:
      increments.IPHeaderIncrements.TTLIncrement = step.number;
      increments.IPv6HeaderIncrements.HopLimitIncrement = byte;
      return;
    case StepField::kTos:
      increments.IPHeaderIncrements.TOSIncrement = byte;
      increments.IPv6HeaderIncrements.TrafficClassIncrement = byte;
      return;
    case StepField::kProtocol:
      increments.IPHeaderIncrements.IPProtocolIncrement = step.number;
      increments.IPv6HeaderIncrements.NextHeaderIncrement = byte;
      return;
    case StepField::kEtherType:
      ethernet.EProtocolIncrement = step.number;
      return;
    case StepField::kVlan:
      increments.VLANHeaderIncrements.VLANIdentifierIncrement = step.number;
      return;
    case StepField::kFlowLabel:
      increments.IPv6HeaderIncrements.FlowLabelIncrement = step.number;
      return;
    case StepField::kDstPort:
      increments.UDPHeaderIncrements.DestinationPortIncrement = step.number;
      return;
    case StepField::kSrcPort:
      increments.UDPHeaderIncrements.SourcePortIncrement = step.number;
      return;
    case StepField::kPayloadType:
      increments.RTPHeaderIncrements.PayloadTypeIncrement = step.number;
      return;
    case StepField::kSsrc:
      increments.RTPHeaderIncrements.SSRCIncrement = step.number;
      return;
  }
}

std::uint32_t LowWord(const IpAddress& address) {
  const std::size_t first = address.is_v6 ? 12 : 0;
  std::uint32_t word = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    word = word << 8 | address.bytes[first + i];
  }
  return word;
}

// A multicast step moves the group's MAC address along, unless the user gave that address. The
// library adds MAC addresses as 48-bit numbers, which is right up to the end of the mapped bits.
void FollowGroups(const PlayOptions& options, const Step& step,
                  ProtocolHeadersIncrements& increments, std::vector<std::string>& notes) {
  const std::uint64_t mapped = step.ip.is_v6 ? 0xFFFFFFFF : 0x7FFFFF;
  const std::uint64_t word = LowWord(step.ip) & mapped;
  const std::uint64_t last = (LowWord(options.to.address) & mapped) + word * (options.copies - 1);
  for (std::size_t i = 0; i < 4; ++i) {
    increments.EthernetHeaderIncrements.DestinationMacAddressIncrement[2 + i] =
        static_cast<std::uint8_t>(word >> (24 - 8 * i));
  }
  if (last > mapped) {
    notes.push_back(
        "--step dst-ip: the groups run past the bits that a MAC address can hold, so the MAC "
        "addresses of later copies do not fit their groups");
  }
}

// The option that would give the datagrams this field, where they lack it; else null.
const char* NeededBy(StepField field, const PlayOptions& options) {
  switch (field) {
    case StepField::kVlan:
      return options.vlan ? nullptr : "--vlan";
    case StepField::kFlowLabel:
      return options.to.address.is_v6 ? nullptr : "an IPv6 target";
    case StepField::kPayloadType:
    case StepField::kSsrc:
      return options.to.rtp ? nullptr : "an rtp:// target";
    default:
      return nullptr;
  }
}

std::optional<Failure> PlanSteps(const PlayOptions& options, ProtocolHeadersIncrements& increments,
                                 std::vector<std::string>& notes) {
  const bool v6 = options.to.address.is_v6;
  const Step* destination = nullptr;
  bool mac_given = options.dst_mac.has_value() || options.dst_ip.has_value();
  for (const Step& step : options.steps) {
    const bool is_address = step.field == StepField::kDstIp || step.field == StepField::kSrcIp;
    if (is_address && step.ip.is_v6 != v6) {
      return UsageFailure(
          fmt::format("--step {}={}: the target is IPv{}; give an address of that version",
                      NameOf(step.field), FormatIp(step.ip), v6 ? 6 : 4));
    }
    if (const char* needed = NeededBy(step.field, options)) {
      return UsageFailure(
          fmt::format("--step {}={} needs {}", NameOf(step.field), step.number, needed));
    }
    if (step.field == StepField::kDstIp) {
      destination = &step;
    }
    mac_given = mac_given || step.field == StepField::kDstMac;
    PlanStep(step, increments);
  }
  if (!options.steps.empty() && options.copies == 1) {
    notes.push_back("--step has no effect on a single stream; add --copies");
  }
  if (destination != nullptr && !mac_given && options.to.address.IsMulticast()) {
    FollowGroups(options, *destination, increments, notes);
  }
  return std::nullopt;
}

// Fields of headers that the datagrams do not have.
std::optional<Failure> CheckFields(const PlayOptions& options) {
  constexpr std::uint32_t kUsualTpid = 0x8100;
  constexpr std::uint32_t kUsualType = 33;
  constexpr std::uint32_t kUsualVersion = 2;
  constexpr const char* kRtpTarget = "an rtp:// target";
  const bool v6 = options.to.address.is_v6;
  const struct {
    const char* option;
    bool is_given;
    bool has_field;
    const char* needed;
  } kFields[] = {
      {"--vlan-priority", options.vlan_priority != 0, options.vlan.has_value(), "--vlan"},
      {"--vlan-cfi", options.vlan_cfi, options.vlan.has_value(), "--vlan"},
      {"--vlan-tpid", options.vlan_tpid != kUsualTpid, options.vlan.has_value(), "--vlan"},
      {"--flow-label", options.flow_label != 0, v6, "an IPv6 target"},
      {"--sequence", options.sequence.has_value(), options.to.rtp, kRtpTarget},
      {"--ssrc", !options.ssrc.random, options.to.rtp, kRtpTarget},
      {"--payload-type", options.payload_type != kUsualType, options.to.rtp, kRtpTarget},
      {"--rtp-version", options.rtp_version != kUsualVersion, options.to.rtp, kRtpTarget},
      {"--rtp-extension", options.rtp_extension, options.to.rtp, kRtpTarget},
      {"--identification", options.identification.has_value(), !v6, "an IPv4 target"},
  };
  for (const auto& [option, is_given, has_field, needed] : kFields) {
    if (is_given && !has_field) {
      return UsageFailure(fmt::format("{} needs {}", option, needed));
    }
  }
  return std::nullopt;
}

}  // namespace

Result<Headers> PlanHeaders(const PlayOptions& options, const Path& path) {
  Headers headers;
  if (auto failure = CheckFields(options)) {
    return *std::move(failure);
  }
  PlanEthernet(options, path, headers.settings);
  if (auto failure = PlanIp(options, path, headers.settings)) {
    return *std::move(failure);
  }
  PlanUdpAndRtp(options, headers.settings);
  if (auto failure = PlanSteps(options, headers.increments, headers.notes)) {
    return *std::move(failure);
  }
  return headers;
}

}  // namespace ipplay
