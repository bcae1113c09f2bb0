// SPDX-License-Identifier: MIT
// Seconds with errors of a stream, where an error may be found after the second in which its frame
// came, or with the frame that shows that a second is over.
#pragma once

#include <cstdint>
#include <optional>

#include "host/measure/figures/availability.h"

namespace ipplay::measure {

class ErrorSeconds {
 public:
  static constexpr std::int64_t kSecondNs = 1'000'000'000;

  // The first second begins, with the first frame.
  void Begin(std::int64_t start_ns) { start_ns_ = start_ns; }
  // Errors that were found in the frame that came at this time, or for it.
  void AddErrors(std::int64_t arrival_ns, std::uint64_t errors);
  // The second that begins at `start_ns` is over. What waits longer than a second for its errors to
  // be found is not waited for.
  void End(std::int64_t start_ns, std::uint64_t received_packets, std::uint64_t lost_packets);
  // So are `seconds` from `start_ns` on, in which nothing came.
  void EndEmpty(std::int64_t start_ns, std::int64_t seconds);
  // No error follows.
  void Finish();

  const Availability& Total() const { return total_; }

 private:
  struct Errors {
    std::int64_t arrival_ns = 0;
    std::uint64_t count = 0;
  };

  Availability total_;
  std::optional<Availability::Second> before_;  // the second before the one that lasts
  std::int64_t start_ns_ = 0;                   // of the one that lasts
  std::uint64_t errors_ = 0;                    // in it
  Errors behind_;                               // in the seconds behind it
};

}  // namespace ipplay::measure
