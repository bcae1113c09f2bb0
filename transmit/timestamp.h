// SPDX-License-Identifier: MIT
// A point in time on the high-resolution clock.
#pragma once

#include <chrono>

#include "transmit/seconds.h"

namespace ipplayout {

// Copied freely; an object belongs to one thread at a time.
class Timestamp {
 public:
  // Holds the present.
  Timestamp() { Mark(); }
  explicit Timestamp(std::chrono::nanoseconds since_origin);
  Timestamp(const Timestamp&) = default;
  Timestamp& operator=(const Timestamp&) = default;
  virtual ~Timestamp() = default;

  void Mark();
  // Since the clock's origin.
  Seconds SinceOrigin() const { return seconds_; }
  void Add(Seconds time) { seconds_ += time; }
  // From `earlier` to this; 0 when `earlier` is the later one.
  Seconds Elapsed(const Timestamp& earlier) const;
  void Assign(const Timestamp& other) { seconds_ = other.seconds_; }
  bool IsEarlierThan(const Timestamp& other) const { return seconds_ < other.seconds_; }

 private:
  Seconds seconds_{0};
};

}  // namespace ipplayout
