// SPDX-License-Identifier: MIT
#include "payload/error_schedule.h"

#include <algorithm>
#include <limits>

#include "platform/random.h"

namespace ipplayout {
namespace {

constexpr std::uint32_t kMostCount = std::numeric_limits<std::int32_t>::max();
// Distinct draws that the generator has; far fewer draws than this times its range find them all.
constexpr std::uint32_t kDistinctDraws = platform::kRandomMax;
constexpr std::uint32_t kMostDraws = 32 * kDistinctDraws;

std::uint32_t RandomOffset(platform::Random& random, std::uint32_t range) {
  const std::uint32_t r = std::min(random.Next(), platform::kRandomMax - 1);
  return r * range / platform::kRandomMax;
}

}  // namespace

void ErrorSchedule::Configure(std::uint32_t count, std::uint32_t range, bool randomize) {
  count_ = count > kMostCount ? 0 : std::min(count, range);
  range_ = range;
  randomize_ = randomize;
  base_ = 0;
  prefix_ = 0;
  spares_drawn_ = false;
  const bool draws = randomize && count_ > 0 && count_ < range;
  drawn_ = std::vector<std::uint64_t>(draws ? std::min(range, kReachableOffsets) / 64 + 1 : 0);
}

bool ErrorSchedule::Hits(std::uint64_t index) {
  if (count_ == 0) {
    return false;
  }
  const std::uint64_t offset = index % range_;
  if (!randomize_ || count_ == range_) {
    return offset < count_;
  }
  if (offset == 0) {
    base_ = index;
    spares_drawn_ = count_ > range_ - count_;  // whichever takes fewer draws
    Draw(spares_drawn_ ? range_ - count_ : count_);
  }
  return index - base_ < range_ && IsDrawn(index - base_) != spares_drawn_;
}

bool ErrorSchedule::IsDrawn(std::uint64_t offset) const {
  return offset < prefix_ ||
         (offset < kReachableOffsets && (drawn_[offset / 64] >> offset % 64 & 1) != 0);
}

void ErrorSchedule::Draw(std::uint32_t wanted) {
  std::fill(drawn_.begin(), drawn_.end(), 0);
  prefix_ = 0;
  std::uint32_t found = 0;
  for (std::uint32_t draws = 0; draws < kMostDraws; ++draws) {
    if (found == wanted || found == kDistinctDraws) {
      break;
    }
    const std::uint32_t offset = RandomOffset(*random_, range_);
    if (!IsDrawn(offset)) {
      drawn_[offset / 64] |= std::uint64_t{1} << offset % 64;
      ++found;
    }
  }
  // The generator had too few values: takes the lowest offsets that it left out ...
  while (found < wanted && prefix_ < kReachableOffsets) {
    if (!IsDrawn(prefix_)) {
      ++found;
    }
    ++prefix_;
  }
  // ... and, beyond those that it can reach, where nothing is drawn, all that are still wanted.
  prefix_ += wanted - found;
}

}  // namespace ipplayout
