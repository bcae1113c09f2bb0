// SPDX-License-Identifier: MIT
// RTP packets that the kernel of a sender or receiver has joined into one datagram (UDP GSO, GRO),
// which no wire has carried like this.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace ipplay::measure {

// The payload of the longest datagram in an Ethernet frame of the usual size.
inline constexpr std::size_t kLongestUsualPayload = 1472;

// Bytes from the first RTP header to the next where `payload` holds several packets, the last of
// which may be shorter; 0 where it does not. All have the SSRC and the payload type of the first,
// and follow one another by their numbers.
std::size_t JoinedLength(std::span<const std::uint8_t> payload);

}  // namespace ipplay::measure
