// SPDX-License-Identifier: MIT
// RTP time stamps of a constant bit rate stream (RFC 3550 section 5.1).
#pragma once

#include <cstdint>

#include "protocol/sw_clock.h"

namespace ipplayout {

// Advances by the ticks that one packet lasts and carries the fraction of a tick from packet to
// packet, so that no drift builds up. Belongs to the data pump thread.
class CZebRTPClock final : public CSwClock {
 public:
  // `clock_rate` in ticks per second, `bit_rate` in bit/s; a bit rate of 0 stands still.
  CZebRTPClock(std::uint32_t clock_rate, std::uint64_t bit_rate, std::uint32_t packet_bytes,
               std::uint32_t initial_timestamp);

  bool NextTimestamp(std::uint32_t* out) override;

 private:
  std::uint32_t current_;
  std::uint32_t whole_step_;
  double fractional_step_;
  double fractional_carry_ = 0;
};

}  // namespace ipplayout
