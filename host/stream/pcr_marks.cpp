// SPDX-License-Identifier: MIT
#include "host/stream/pcr_marks.h"

#include <bitstream/mpeg/ts.h>

#include <cmath>

#include "host/stream/pcr.h"

namespace ipplay {
namespace {

constexpr double kNanosecondsPerTick = 1e9 / kPcrHz;
// PCRs come at least every 100 ms (ISO/IEC 13818-1, 2.7.2), in practice up to a second apart.
constexpr std::uint64_t kLongestInterval = 10 * kPcrHz;

}  // namespace

std::optional<PcrMarks::Time> PcrMarks::Add(const std::uint8_t* packet) {
  const std::uint64_t index = index_++;
  const auto pcr = ts_get_pid(packet) == pid_ ? ReadPcr(packet) : std::nullopt;
  if (!pcr) {
    return std::nullopt;
  }
  const auto packets = static_cast<double>(index - last_index_);
  if (!last_pcr_) {
    time_ns_ = packets * usual_ns_;
  } else {
    const std::uint64_t ticks = (*pcr + kPcrModulus - *last_pcr_) % kPcrModulus;
    if (tsaf_has_discontinuity(packet) || IsJump(ticks)) {
      time_ns_ += packets * usual_ns_;
    } else {
      const double time = static_cast<double>(ticks) * kNanosecondsPerTick;
      usual_ns_ = time / packets;
      time_ns_ += time;
    }
  }
  last_pcr_ = pcr;
  last_index_ = index;
  return Time(std::llround(time_ns_ / speed_));
}

bool PcrMarks::IsJump(std::uint64_t ticks) const {
  return ticks == 0 || ticks > kLongestInterval;
}

}  // namespace ipplay
