// SPDX-License-Identifier: MIT
// How large the datagrams of a playout are.
#pragma once

#include <cstdint>

#include "host/base/result.h"
#include "host/library/adapters.h"
#include "host/play/play_options.h"
#include "host/stream/packet_format.h"

namespace ipplay {

struct Sizes {
  std::uint32_t header_bytes = 0;   // all headers of a frame
  std::uint32_t payload_bytes = 0;  // of a full frame
  std::uint32_t frame_bytes = 0;    // Ethernet header to end of payload
  bool to_the_byte = false;         // the payload need not hold whole packets
  bool dont_fragment = true;        // the IPv4 bit
};

// `captured` packets to a datagram unless the user orders a size.
Result<Sizes> PlanSizes(const PlayOptions& options, PacketFormat format, const Adapter& adapter,
                        std::optional<std::uint32_t> captured = std::nullopt);

}  // namespace ipplay
