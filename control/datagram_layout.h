// SPDX-License-Identifier: MIT
// How large the datagrams of a playout are, and how many of them make a batch.
#pragma once

#include <cstdint>
#include <optional>

#include "control/settings_store.h"

namespace ipplayout {

struct DatagramLayout {
  std::uint32_t packet_size = 0;    // of a packet in the input; 0 for a raw stream
  std::uint32_t datagram_size = 0;  // Ethernet header to end of payload
};

// Bit rate of one stream in bit/s, and of all replicated streams together.
double StreamBitRate(const PlayoutSettings& settings);
double AggregateBitRate(const PlayoutSettings& settings);

// The values that no chain of layers and no schedule can be made from are refused here.
bool IsPlayable(const PlayoutSettings& settings);

// For headers of `header_length` bytes in all. Nothing when the headers alone are larger than the
// datagram that was asked for.
std::optional<DatagramLayout> LayOutDatagram(const PlayoutSettings& settings,
                                             std::uint32_t header_length);

// Frames per batch. `burst_count` is that of the parametric manager.
std::uint32_t PacketsPerQueue(const PlayoutSettings& settings, std::uint32_t burst_count);

// Bytes that the data buffer of `capacity` bytes holds before reading begins.
std::uint32_t StartThreshold(std::uint64_t file_size, std::uint32_t capacity);

}  // namespace ipplayout
