// SPDX-License-Identifier: MIT
#include "host/play/plan_sizes.h"

#include <fmt/format.h>

#include "host/base/header_lengths.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {
namespace {

constexpr std::uint32_t kDefaultPacketsPerDatagram = 7;
constexpr std::uint32_t kDefaultRawPayload = 7 * 188;

std::optional<Failure> CheckOptions(const PlayOptions& options) {
  if (options.frame_size && options.ts_per_datagram) {
    return UsageFailure("--frame-size and --ts-per-datagram exclude each other; give one");
  }
  if (options.cut && !options.frame_size) {
    return UsageFailure("--cut needs --frame-size, the size to fill");
  }
  if (options.raw && options.ts_per_datagram) {
    return UsageFailure(
        "--ts-per-datagram and --raw exclude each other: raw input has no transport packets; give "
        "--frame-size");
  }
  return std::nullopt;
}

std::uint32_t HeaderBytes(const PlayOptions& options) {
  std::uint32_t ip = kIpv6HeaderBytes;
  if (!options.to.address.is_v6) {
    ip = kIpv4HeaderBytes + (options.protocol == kRouterAlertProtocol ? kIpv4RouterAlertBytes : 0);
  }
  return kEthernetHeaderBytes + (options.vlan ? kVlanTagBytes : 0) + ip + kUdpHeaderBytes +
         (options.to.rtp ? kRtpHeaderBytes : 0);
}

// The option that decides on the size, and its value.
std::string SizeOption(const PlayOptions& options, std::uint32_t packets) {
  if (options.frame_size) {
    return fmt::format("--frame-size {}", *options.frame_size);
  }
  return fmt::format("--ts-per-datagram {}", packets);
}

// The library cuts larger datagrams silently, and the adapter refuses them.
std::optional<Failure> CheckFrame(const PlayOptions& options, const Sizes& sizes,
                                  std::uint32_t packets, const Adapter& adapter) {
  const bool v6 = options.to.address.is_v6;
  const std::uint32_t largest = GetMaxIPMTU(v6 ? 1 : 0, sizes.dont_fragment ? 0 : 1);
  if (sizes.frame_bytes > largest) {
    return UsageFailure(fmt::format("{} makes frames of {} bytes; give at most {}{}",
                                    SizeOption(options, packets), sizes.frame_bytes, largest,
                                    v6 || !sizes.dont_fragment ? "" : ", or --dont-fragment off"));
  }
  const std::uint32_t packet =
      sizes.frame_bytes - kEthernetHeaderBytes - (options.vlan ? kVlanTagBytes : 0);
  if (adapter.mtu && packet > *adapter.mtu) {
    return UsageFailure(
        fmt::format("{} makes IP packets of {} bytes; {} takes at most {} (its MTU)",
                    SizeOption(options, packets), packet, adapter.name, *adapter.mtu));
  }
  return std::nullopt;
}

}  // namespace

Result<Sizes> PlanSizes(const PlayOptions& options, PacketFormat format, const Adapter& adapter,
                        std::optional<std::uint32_t> captured) {
  constexpr std::uint32_t kLargestUnfragmented = 1500;
  if (auto failure = CheckOptions(options)) {
    return *std::move(failure);
  }
  const std::uint32_t packets =
      options.ts_per_datagram.value_or(captured.value_or(kDefaultPacketsPerDatagram));
  Sizes sizes;
  sizes.to_the_byte = options.raw || options.cut;
  sizes.header_bytes = HeaderBytes(options);
  sizes.payload_bytes = options.raw ? kDefaultRawPayload : packets * format.packet_bytes;
  if (options.frame_size) {
    const std::uint32_t unit = sizes.to_the_byte ? 1 : format.packet_bytes;
    const std::uint32_t smallest = sizes.header_bytes + unit;
    if (*options.frame_size < smallest) {
      return UsageFailure(fmt::format("{} is too small: the headers take {} bytes; give {} or more",
                                      SizeOption(options, packets), sizes.header_bytes, smallest));
    }
    sizes.payload_bytes = (*options.frame_size - sizes.header_bytes) / unit * unit;
  }
  sizes.frame_bytes = sizes.header_bytes + sizes.payload_bytes;
  sizes.dont_fragment = options.dont_fragment.value_or(sizes.frame_bytes <= kLargestUnfragmented);
  if (auto failure = CheckFrame(options, sizes, packets, adapter)) {
    return *std::move(failure);
  }
  return sizes;
}

}  // namespace ipplay
