// SPDX-License-Identifier: MIT
#include "host/play/held_back.h"

namespace ipplay {

std::optional<std::uint64_t> HeldBackAtEnd(const ErrorInsertion& errors,
                                           const PlayoutStatistics& counters, bool on_request) {
  if (counters.SequenceErrors == 0) {
    return 0;
  }
  if (on_request || errors.RandomizeErrors != IPPLAYOUT_OFF) {
    return std::nullopt;
  }
  // A delayed datagram leaves just before the one that is `distance` + 1 later, if there is one.
  // One that is lost as well is only lost.
  const std::uint64_t end = counters.DatagramsSent;
  const std::uint64_t reach = std::uint64_t{errors.SequenceErrorDistance} + 1;
  std::uint64_t held = 0;
  for (std::uint64_t index = end > reach ? end - reach : 0; index < end; ++index) {
    const bool delayed = index % errors.SequenceErrorRange < errors.NumSequenceError;
    const bool lost = errors.PacketLossEnabled == IPPLAYOUT_ON &&
                      index % errors.PacketLossRange < errors.NumPacketLoss;
    held += delayed && !lost ? 1 : 0;
  }
  return held;
}

}  // namespace ipplay
