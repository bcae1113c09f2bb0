// SPDX-License-Identifier: MIT
// Which datagrams of each range get one kind of scheduled error.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/random.h"

namespace ipplayout {

// A count of datagrams in every range of consecutive ones: the first of the range, or distinct
// random ones. Positions are kept as a bit per offset that the generator can reach, so a datagram
// costs one look-up whatever the count. Belongs to the data pump thread.
class ErrorSchedule {
 public:
  // Where random positions are drawn from; the process-wide generator at first.
  void UseRandom(platform::Random& random) { random_ = &random; }

  // Throws when there is no memory for random positions. A count of 2^31 or more counts as none, as
  // does a range of 0; a count above the range means every datagram.
  void Configure(std::uint32_t count, std::uint32_t range, bool randomize);

  // True when the datagram with this index is to be damaged. Draws the positions of a range when
  // given its first index.
  bool Hits(std::uint64_t index);

 private:
  // A 15-bit draw times a range in 32-bit arithmetic, over 32,767, stays below this.
  static constexpr std::uint32_t kReachableOffsets = 131081;

  void Draw(std::uint32_t wanted);
  bool IsDrawn(std::uint64_t offset) const;

  platform::Random* random_ = &platform::ProcessRandom();
  std::uint32_t count_ = 0;
  std::uint32_t range_ = 0;
  bool randomize_ = false;
  std::uint64_t base_ = 0;
  std::vector<std::uint64_t> drawn_;  // a bit per offset; none where nothing is random
  // Every offset below this counts as drawn. Long ranges can want more datagrams than the generator
  // has distinct values; the rest are then the first of the range, so that the count is kept.
  std::uint64_t prefix_ = 0;
  bool spares_drawn_ = false;  // the drawn offsets are the ones to leave alone
};

}  // namespace ipplayout
