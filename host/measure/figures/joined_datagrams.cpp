// SPDX-License-Identifier: MIT
#include "host/measure/figures/joined_datagrams.h"

#include <algorithm>

#include "host/base/byte_order.h"

namespace ipplay::measure {
namespace {

// RFC 3550, 5.1.
constexpr std::size_t kHeaderLength = 12;
constexpr std::size_t kNumber = 2;
constexpr std::size_t kSsrc = 8;
constexpr std::size_t kSsrcLength = 4;
constexpr std::uint8_t kVersionBits = 0xC0;
constexpr std::uint8_t kVersion2 = 0x80;
constexpr std::uint8_t kPayloadTypeBits = 0x7F;

using Bytes = std::span<const std::uint8_t>;

bool Follows(Bytes first, Bytes other, std::size_t places) {
  return other.size() >= kHeaderLength && (other[0] & kVersionBits) == kVersion2 &&
         (other[1] & kPayloadTypeBits) == (first[1] & kPayloadTypeBits) &&
         LoadBe16(&other[kNumber]) ==
             static_cast<std::uint16_t>(LoadBe16(&first[kNumber]) + places) &&
         std::ranges::equal(other.subspan(kSsrc, kSsrcLength), first.subspan(kSsrc, kSsrcLength));
}

bool IsLengthOfAll(Bytes payload, std::size_t length) {
  for (std::size_t place = 1; place * length < payload.size(); ++place) {
    if (!Follows(payload, payload.subspan(place * length), place)) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::size_t JoinedLength(std::span<const std::uint8_t> payload) {
  if (payload.size() <= kLongestUsualPayload || (payload[0] & kVersionBits) != kVersion2) {
    return 0;
  }
  const Bytes ssrc = payload.subspan(kSsrc, kSsrcLength);
  Bytes rest = payload.subspan(kHeaderLength);
  while (true) {
    const auto found = std::search(rest.begin(), rest.end(), ssrc.begin(), ssrc.end());
    if (found == rest.end()) {
      return 0;
    }
    const auto at = static_cast<std::size_t>(&*found - payload.data());
    if (at >= kHeaderLength + kSsrc && IsLengthOfAll(payload, at - kSsrc)) {
      return at - kSsrc;
    }
    rest = payload.subspan(at + 1);
  }
}

}  // namespace ipplay::measure
