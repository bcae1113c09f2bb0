// SPDX-License-Identifier: MIT
#include "devices/neighbour_solicitation.h"

#include <algorithm>

#include "protocol/big_endian.h"
#include "protocol/internet_checksum.h"

namespace ipplayout {
namespace {

using platform::Ipv6Address;

enum Offset : std::size_t {
  kDestinationMac = 0,
  kSourceMac = 6,
  kEtherType = 12,
  kVersion = 14,
  kPayloadLength = 18,
  kNextHeader = 20,
  kHopLimit = 21,
  kSource = 22,
  kDestination = 38,
  kType = 54,
  kChecksum = 56,
  kTarget = 62,
  kOptionType = 78,
  kOptionLength = 79,
  kLinkLayerAddress = 80,
};
constexpr std::size_t kMessageSize = kSolicitationSize - kType;

constexpr std::uint16_t kEtherTypeIPv6 = 0x86DD;
constexpr std::uint8_t kIcmpV6 = 58;
constexpr std::uint8_t kLargestHopLimit = 255;
constexpr std::uint8_t kNeighbourSolicitation = 135;
constexpr std::uint8_t kNeighbourAdvertisement = 136;
constexpr std::uint8_t kSourceLinkLayerAddress = 1;

template <typename Bytes>
void Put(SolicitationFrame& frame, std::size_t offset, const Bytes& bytes) {
  std::copy(bytes.begin(), bytes.end(), frame.begin() + static_cast<std::ptrdiff_t>(offset));
}

// Over the pseudo-header and the ICMPv6 message.
std::uint16_t Checksum(std::span<const std::uint8_t> frame) {
  constexpr std::size_t kAddressesSize = 2 * sizeof(Ipv6Address);
  std::array<std::uint8_t, kAddressesSize + 8 + kMessageSize> block{};
  std::copy_n(&frame[kSource], kAddressesSize, block.begin());
  StoreBigEndian<4>(kMessageSize, &block[kAddressesSize]);
  block[kAddressesSize + 7] = kIcmpV6;
  std::copy_n(&frame[kType], kMessageSize, &block[kAddressesSize + 8]);
  return InternetChecksum(block);
}

bool HasRightChecksum(std::span<const std::uint8_t> frame) {
  const auto size = static_cast<std::uint16_t>(LoadBigEndian<2>(&frame[kPayloadLength]));
  // A right message adds up to all ones, with the checksum in its place.
  return size > kMessageSize || (size == kMessageSize && Checksum(frame) == 0);
}

}  // namespace

Ipv6Address SolicitedNodeAddress(const Ipv6Address& target) {
  Ipv6Address address{0xFF, 0x02};
  address[11] = 0x01;
  address[12] = 0xFF;
  std::copy(target.begin() + 13, target.end(), address.begin() + 13);
  return address;
}

MacAddress MulticastMacForAddress(const Ipv6Address& address) {
  return {0x33, 0x33, address[12], address[13], address[14], address[15]};
}

SolicitationFrame BuildSolicitation(const MacAddress& source_mac, const Ipv6Address& source,
                                    const Ipv6Address& target) {
  const Ipv6Address destination = SolicitedNodeAddress(target);
  SolicitationFrame frame{};
  Put(frame, kDestinationMac, MulticastMacForAddress(destination));
  Put(frame, kSourceMac, source_mac);
  StoreBigEndian<2>(kEtherTypeIPv6, &frame[kEtherType]);
  StoreBigEndian<4>(0x60000000, &frame[kVersion]);
  StoreBigEndian<2>(kMessageSize, &frame[kPayloadLength]);
  frame[kNextHeader] = kIcmpV6;
  frame[kHopLimit] = kLargestHopLimit;
  Put(frame, kSource, source);
  Put(frame, kDestination, destination);
  frame[kType] = kNeighbourSolicitation;
  Put(frame, kTarget, target);
  frame[kOptionType] = kSourceLinkLayerAddress;
  frame[kOptionLength] = 1;
  Put(frame, kLinkLayerAddress, source_mac);
  const std::uint16_t checksum = Checksum(frame);
  StoreBigEndian<2>(checksum == 0 ? 0xFFFF : checksum, &frame[kChecksum]);
  return frame;
}

std::optional<MacAddress> ReadAdvertisement(std::span<const std::uint8_t> frame,
                                            const Ipv6Address& target) {
  if (frame.size() < kSolicitationSize || frame[kType] != kNeighbourAdvertisement ||
      frame[kNextHeader] != kIcmpV6 || frame[kHopLimit] != kLargestHopLimit ||
      !std::equal(target.begin(), target.end(), &frame[kTarget]) || !HasRightChecksum(frame)) {
    return std::nullopt;
  }
  MacAddress mac{};
  std::copy_n(&frame[kLinkLayerAddress], mac.size(), mac.begin());
  return mac;
}

}  // namespace ipplayout
