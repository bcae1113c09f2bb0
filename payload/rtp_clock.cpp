// SPDX-License-Identifier: MIT
#include "payload/rtp_clock.h"

#include <cmath>

namespace ipplayout {

CZebRTPClock::CZebRTPClock(std::uint32_t clock_rate, std::uint64_t bit_rate,
                           std::uint32_t packet_bytes, std::uint32_t initial_timestamp)
    : current_(initial_timestamp), whole_step_(0), fractional_step_(0) {
  if (bit_rate == 0) {
    return;
  }
  const std::uint32_t packet_bits = packet_bytes * 8;
  const double exact = 1.0 * packet_bits / static_cast<double>(bit_rate) * clock_rate;
  const double whole = std::floor(exact);
  // At a few bits per second one packet outlasts the whole 32-bit range: the step wraps with it.
  whole_step_ = static_cast<std::uint32_t>(static_cast<std::uint64_t>(whole));
  fractional_step_ = exact - whole;
}

bool CZebRTPClock::NextTimestamp(std::uint32_t* out) {
  *out = current_;
  current_ += whole_step_;
  fractional_carry_ += fractional_step_;
  if (fractional_carry_ >= 1.0) {
    fractional_carry_ -= 1.0;
    ++current_;
  }
  return true;
}

}  // namespace ipplayout
