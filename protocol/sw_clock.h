// SPDX-License-Identifier: MIT
// Software clocks: time stamps that follow from what is sent, not from any real clock.
#pragma once

#include <cstdint>

namespace ipplayout {

class CSwClock {
 public:
  // Time stamp of the next packet. False when the clock has none to give.
  virtual bool NextTimestamp(std::uint32_t* out) = 0;
  virtual ~CSwClock() = default;
};

}  // namespace ipplayout
