// SPDX-License-Identifier: MIT
#include "host/play/status.h"

#include <algorithm>
#include <cmath>

namespace ipplay {
namespace {

using std::chrono::nanoseconds;
constexpr nanoseconds kRecent = std::chrono::seconds(2);
constexpr nanoseconds kRunUp = std::chrono::milliseconds(200);

double Seconds(nanoseconds time) {
  return static_cast<double>(time.count()) / 1e9;
}

}  // namespace

StatusMeter::StatusMeter(const PlayPlan& plan)
    : total_bytes_(plan.total_bytes),
      round_bytes_(plan.round_bytes),
      stream_rate_(plan.stream_rate),
      share_that_leaves_(plan.share_that_leaves),
      burst_(plan.settings.shape.BurstMode == 1 ? plan.batch / plan.copies : 1) {
  const bool is_tts = plan.settings.tts.TTSEnabled == 1;
  bytes_per_ts_byte_ = is_tts ? 192.0 / 188 : 1;
  ts_bytes_per_datagram_ = plan.payload_bytes / bytes_per_ts_byte_;
}

void StatusMeter::Read(const PlayoutStatistics& counters, nanoseconds now) {
  counters_ = counters;
  if (!first_) {
    // It left at some time between two readings.
    if (counters.DatagramsSent > 0) {
      first_ = now - (now - waiting_.value_or(now)) / 2;
    }
    waiting_ = now;
  }
  if (!first_ || (!readings_.empty() && now == readings_.back().time)) {
    return;
  }
  readings_.push_back({now, counters.TSBytesSent});
  if (!under_way_ && now - *first_ >= kRunUp) {
    under_way_ = readings_.back();
  }
  while (readings_.size() > 2 && readings_[1].time <= now - kRecent) {
    readings_.pop_front();
  }
}

void StatusMeter::End(const PlayoutStatistics& counters, bool complete) {
  counters_ = counters;
  complete_ = complete;
}

// The library counts datagrams some time before they leave. What it has in hand does not matter
// between two points on the way. At the end of a complete run nothing is in hand: from the
// departure of the first datagram to that of the last one lies the time of all but one, which are
// full ones; with bursts, that of all full bursts but one, since a last one that is not full leaves
// right behind the one before it. Lost ones have no time of their own.
double StatusMeter::MeanRate() const {
  if (readings_.empty() || readings_.back().time <= *first_) {
    return 0;
  }
  if (!complete_ && under_way_ && readings_.back().time > under_way_->time) {
    return RateSince(*under_way_);
  }
  const std::uint64_t left = counters_.DatagramsSent - counters_.LostPackets;
  if (left < burst_) {
    return 0;
  }
  const std::uint64_t lasting = (left / burst_ - 1) * burst_;
  const double datagrams = static_cast<double>(lasting) / share_that_leaves_;
  return datagrams * ts_bytes_per_datagram_ * 8 / Seconds(readings_.back().time - *first_);
}

double StatusMeter::RateSince(const Reading& from) const {
  const Reading& to = readings_.back();
  return static_cast<double>(to.ts_bytes - from.ts_bytes) * 8 / Seconds(to.time - from.time);
}

Status StatusMeter::Total() const {
  Status status;
  status.counters = counters_;
  status.paused = Paused();
  if (first_ && !readings_.empty()) {
    status.elapsed = readings_.back().time - *first_;
  }
  status.recent_rate = readings_.size() < 2 ? 0 : RateSince(readings_.front());
  status.mean_rate = MeanRate();
  const double played = static_cast<double>(counters_.TSBytesSent) * bytes_per_ts_byte_;
  if (round_bytes_ && played > 0) {
    // A round that is just complete is not the next one yet.
    status.round = static_cast<std::uint64_t>(
        std::max(std::ceil(played / static_cast<double>(*round_bytes_)), 1.0));
  }
  if (total_bytes_ && *total_bytes_ > 0) {
    const auto total = static_cast<double>(*total_bytes_);
    status.share = std::min(played / total, 1.0);
    const double left = std::max(total - played, 0.0) / bytes_per_ts_byte_ * 8 / stream_rate_;
    status.remaining = nanoseconds(std::llround(std::min(left * 1e9, 9e18)));
  }
  return status;
}

}  // namespace ipplay
