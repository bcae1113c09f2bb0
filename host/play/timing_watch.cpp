// SPDX-License-Identifier: MIT
#include "host/play/timing_watch.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "host/base/units.h"

namespace ipplay {
namespace {

using std::chrono::nanoseconds;

constexpr std::int64_t kWorthAWarningNs = 10'000'000;

}  // namespace

std::vector<std::string> TimingWatch::Warnings(const IpPlayoutTiming& timing) {
  std::vector<std::string> warnings;
  if (timing.DryNs >= std::max(kWorthAWarningNs, 2 * dry_ns_)) {
    dry_ns_ = timing.DryNs;
    warnings.push_back(fmt::format("INPUT was not there in time: {} so far, for {} in all",
                                   FormatCount(timing.DryTimes, "time"),
                                   FormatDuration(nanoseconds(timing.DryNs))));
  }
  if (options_.wait_link && timing.NotSent > 2 * refused_frames_) {
    refused_frames_ = timing.NotSent;
    warnings.push_back(fmt::format("the adapter takes no frames: {} lost so far; is its link down?",
                                   FormatCount(timing.NotSent)));
  }
  if (timing.LatenessMaxNs >= std::max(kWorthAWarningNs, 2 * lateness_ns_)) {
    lateness_ns_ = timing.LatenessMaxNs;
    warnings.push_back(fmt::format("frames leave late: {} so far by more than 1 ms, at most by {}",
                                   FormatCount(timing.Late),
                                   FormatDuration(nanoseconds(timing.LatenessMaxNs))));
  }
  return warnings;
}

std::vector<std::string> TimingWatch::Breaches(const IpPlayoutTiming& timing) const {
  std::vector<std::string> breaches;
  if (options_.max_late && timing.LatenessMaxNs > options_.max_late->count()) {
    breaches.push_back(fmt::format("--max-late: a datagram left {} late",
                                   FormatDuration(nanoseconds(timing.LatenessMaxNs))));
  }
  if (options_.max_late && timing.LeftOut > 0) {
    breaches.push_back(fmt::format("--max-late: too late to be sent: {}",
                                   FormatCount(timing.LeftOut, "datagram")));
  }
  if (options_.no_underrun && timing.DryTimes > 0) {
    breaches.push_back(fmt::format("--no-underrun: INPUT was not there in time, {} for {} in all",
                                   FormatCount(timing.DryTimes, "time"),
                                   FormatDuration(nanoseconds(timing.DryNs))));
  }
  return breaches;
}

}  // namespace ipplay
