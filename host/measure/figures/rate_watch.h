// SPDX-License-Identifier: MIT
// Tells when a stream's rate leaves what it has been.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace ipplay::measure {

// The mean of the last ten seconds is what the rate has been. A second leaves it that differs by
// more than a tenth, by more than twice as much as any of those ten did, and by more than two
// datagrams. Seconds that have left count for nothing, until ten in a row have: these are what the
// rate has been from then on.
class RateWatch {
 public:
  static constexpr std::size_t kSeconds = 10;

  // A whole second with `bytes` of payload, in datagrams of at most `longest`; an empty one is
  // silence, and no part of this. True where it is the first one that has left.
  bool Add(std::uint64_t bytes, std::uint32_t longest);

 private:
  using Seconds = std::array<std::uint64_t, kSeconds>;

  bool HasLeft(std::uint64_t bytes, std::uint32_t longest) const;

  Seconds been_{};
  std::size_t known_ = 0;  // seconds added to been_, of which the last ten are there
  Seconds left_{};
  std::size_t away_ = 0;  // seconds in a row that have left
};

}  // namespace ipplay::measure
