// SPDX-License-Identifier: MIT
#include "transmit/packet.h"

namespace ipplayout {

MacPacket::MacPacket(std::uint64_t receive_index, const std::uint8_t* data,
                     std::uint32_t captured_length, std::uint64_t receive_time_ns)
    : bytes_(data, data + captured_length),
      receive_time_ns_(receive_time_ns),
      receive_index_(receive_index) {}

std::int32_t MacPacket::PayloadLength() const {
  return static_cast<std::int32_t>(bytes_.size()) - static_cast<std::int32_t>(kHeaderLength);
}

}  // namespace ipplayout
