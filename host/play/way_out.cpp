// SPDX-License-Identifier: MIT
#include "host/play/way_out.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "host/base/capabilities.h"
#include "host/library/destination.h"
#include "host/play/given_option.h"
#include "host/play/written_files.h"
#include "ipplayout/playouts.h"

namespace ipplay {
namespace {

constexpr std::uint32_t kUdp = 17;

bool IsOwnAddress(const std::vector<Adapter>& adapters, const IpAddress& address) {
  if (address.IsLoopback()) {
    return true;
  }
  return std::any_of(adapters.begin(), adapters.end(), [&](const Adapter& adapter) {
    const std::vector<IpAddress>& own = address.is_v6 ? adapter.ipv6 : adapter.ipv4;
    return std::find(own.begin(), own.end(), address) != own.end();
  });
}

bool OrdersBadChecksums(const PlayOptions& options) {
  return std::any_of(options.time_line.begin(), options.time_line.end(), [](const auto& entry) {
    return entry.second.kind == ActionKind::kBadIpChecksum ||
           entry.second.kind == ActionKind::kBadUdpChecksum;
  });
}

// The option that a socket cannot follow.
std::optional<const char*> WhatNeedsAdapter(const PlayOptions& options, const PlayPlan& plan) {
  const GivenOption kOptions[] = {
      {"--fec", options.fec.has_value()},
      {"--vlan", options.vlan.has_value()},
      {"--copies", options.copies > 1},
      {"--identification", options.identification.has_value()},
      {"--protocol", options.protocol != kUdp},
      {"--ethertype", options.ether_type.has_value()},
      {"--ip-version", options.ip_version.has_value()},
      {"--src-mac", options.src_mac.has_value()},
      {"--dst-mac", options.dst_mac.has_value()},
      {"--dst-ip", options.dst_ip.has_value()},
      {"--bad-ip-checksum", options.bad_ip_checksum.has_value()},
      {"--bad-udp-checksum", options.bad_udp_checksum.has_value()},
      {"--at with a bad checksum", OrdersBadChecksums(options)},
      {"--priority, or a rate with less than 5 us between frames,", !plan.by_schedule},
  };
  return FirstGiven(kOptions);
}

void UseSocket(const PlayOptions& options, const Path& path, PlayPlan& plan) {
  IpPlayoutSettings& schedule = plan.schedule;
  schedule.To = IPPLAYOUT_TO_SOCKET;
  ProtocolHeadersSettings& headers = schedule.Params.ProtocolHeadersSettings;
  // The kernel's, as are the Ethernet header and the checksums.
  headers.IPHeaderSettings.Identification = 0;
  if (!options.src_port) {
    headers.UDPHeaderSettings.SourcePort = 0;  // the usual one may be the receiver's
  }
  const IpAddress& target = options.to.address;
  const bool needs_interface = target.IsMulticast() || target.IsLinkLocal();
  schedule.Destination[0] = '\0';
  if (needs_interface || !options.device.empty()) {
    const std::size_t length =
        path.adapter.name.copy(schedule.Destination, sizeof schedule.Destination - 1);
    schedule.Destination[length] = '\0';
  }
}

std::optional<Failure> UseFile(const PlayOptions& options, PlayPlan& plan) {
  if (IsInput(options, options.into)) {
    return UsageFailure(fmt::format("{} is INPUT; give another file to write", options.into));
  }
  IpPlayoutSettings& schedule = plan.schedule;
  if (options.into.size() >= sizeof schedule.Destination) {
    return UsageFailure(fmt::format("{}: the path is too long; give one of up to {} bytes",
                                    options.into, sizeof schedule.Destination - 1));
  }
  schedule.To = IPPLAYOUT_TO_FILE;
  schedule.Destination[options.into.copy(schedule.Destination, options.into.size())] = '\0';
  return std::nullopt;
}

}  // namespace

std::optional<Failure> ChooseWay(const PlayOptions& options, const Path& path,
                                 const std::vector<Adapter>& adapters, PlayPlan& plan) {
  if (!options.into.empty()) {
    return UseFile(options, plan);
  }
  const auto needs_adapter = WhatNeedsAdapter(options, plan);
  const bool is_own = options.device.empty() && IsOwnAddress(adapters, options.to.address);
  const auto missing_right = MissingRightToSend();
  if (options.socket && needs_adapter) {
    return UsageFailure(
        fmt::format("--socket: {} needs an adapter; leave one of the two out", *needs_adapter));
  }
  if (needs_adapter) {
    if (missing_right) {
      return Failure{ExitStatus::kNoAccess, *missing_right};
    }
    if (is_own) {
      plan.notes.push_back(fmt::format(
          "the target is this machine, whose programs do not get what its adapters send; {} needs "
          "an adapter",
          *needs_adapter));
    }
    return std::nullopt;
  }
  if (options.socket || is_own || missing_right) {
    UseSocket(options, path, plan);
  }
  if (missing_right && !options.socket && !is_own) {
    plan.notes.push_back(fmt::format(
        "a UDP socket sends the datagrams, in headers of the system's: {}", *missing_right));
  } else if (is_own && !options.socket) {
    plan.notes.emplace_back(
        "the target is this machine: a UDP socket sends the datagrams, in headers of the system's");
  }
  return std::nullopt;
}

Path PathIntoFile(const PlayOptions& options, const std::vector<Adapter>& adapters) {
  const bool v6 = options.to.address.is_v6;
  const auto adapter = ChooseAdapter(adapters, options.device, options.to);
  Path path;
  if (adapter) {
    path.adapter = *adapter;
    path.source = SourceAddress(*adapter, options.to.address);
  } else {
    path.adapter.name = "no adapter";
    path.adapter.mac = {0x02, 0, 0, 0, 0, 0x01};
  }
  if (!path.source) {
    path.source = ParseIp(v6 ? "2001:db8::1" : "192.0.2.1");
  }
  const auto known = DestinationWithoutAsking(path.adapter, options.to.address);
  path.destination = known ? known->mac : MacAddress{0x02, 0, 0, 0, 0, 0x02};
  return path;
}

}  // namespace ipplay
