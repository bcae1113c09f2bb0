// SPDX-License-Identifier: MIT
// A point in time on the high-resolution clock, in seconds.
#pragma once

#include <chrono>

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
  // Seconds since the clock's origin.
  double Seconds() const { return seconds_; }
  void Add(double seconds) { seconds_ += seconds; }
  // Seconds from `earlier` to this; 0 when `earlier` is the later one.
  double Elapsed(const Timestamp& earlier) const;
  void Assign(const Timestamp& other) { seconds_ = other.seconds_; }
  bool IsEarlierThan(const Timestamp& other) const { return seconds_ < other.seconds_; }

 private:
  double seconds_ = 0;
};

}  // namespace ipplayout
