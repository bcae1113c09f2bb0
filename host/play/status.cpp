// SPDX-License-Identifier: MIT
#include "host/play/status.h"

#include <algorithm>
#include <cmath>

namespace ipplay {
namespace {

using std::chrono::nanoseconds;
constexpr nanoseconds kRecent = std::chrono::seconds(2);
constexpr nanoseconds kStartUp = std::chrono::milliseconds(200);

double Seconds(nanoseconds time) {
  return static_cast<double>(time.count()) / 1e9;
}

}  // namespace

StatusMeter::StatusMeter(const PlayPlan& plan)
    : total_bytes_(plan.rounds.total_bytes),
      round_bytes_(plan.rounds.round_bytes),
      stream_rate_(plan.rates.stream),
      share_sent_(plan.rates.share_sent),
      copies_(plan.copies),
      has_fec_(plan.schedule.FecColumns > 0),
      datagrams_per_burst_(
          plan.settings.shape.BurstMode == IPPLAYOUT_ON ? plan.rates.batch / plan.copies : 1) {
  const bool is_tts = plan.settings.tts.TTSEnabled == IPPLAYOUT_ON;
  input_bytes_per_ts_byte_ = is_tts ? 192.0 / 188 : 1;
  ts_bytes_per_datagram_ = plan.sizes.payload_bytes / input_bytes_per_ts_byte_;
}

void StatusMeter::Read(const PlayoutStatistics& counters, nanoseconds now) {
  counters_ = counters;
  if (!first_) {
    // It left between two readings.
    if (counters.DatagramsSent > 0) {
      first_ = now - (now - before_first_.value_or(now)) / 2;
    }
    before_first_ = now;
  }
  if (!first_ || (!readings_.empty() && now == readings_.back().time)) {
    return;
  }
  readings_.push_back({now, counters.TSBytesSent});
  if (!steady_ && now - *first_ >= kStartUp) {
    steady_ = readings_.back();
  }
  while (readings_.size() > 2 && readings_[1].time <= now - kRecent) {
    readings_.pop_front();
  }
}

void StatusMeter::End(const PlayoutStatistics& counters, bool complete,
                      const std::optional<IpPlayoutTiming>& timing) {
  counters_ = counters;
  complete_ = complete;
  timing_ = timing;
}

// The library counts a datagram some time before it leaves. Between two readings of a steady run
// that does not matter: as many wait at the one as at the other.
std::optional<double> StatusMeter::MeanRate() const {
  if (timing_) {
    return RateOfDepartures();
  }
  if (readings_.empty() || readings_.back().time <= *first_) {
    return std::nullopt;
  }
  if (!complete_ && steady_ && readings_.back().time > steady_->time) {
    return RateSince(*steady_);
  }
  // In the end all datagrams have left.
  return RateOf(counters_.DatagramsSent - counters_.LostPackets, readings_.back().time - *first_);
}

std::optional<double> StatusMeter::RateOfDepartures() const {
  const nanoseconds time(timing_->LastDepartureNs - timing_->FirstDepartureNs);
  const std::uint64_t left = timing_->OnTime + timing_->Late;
  std::uint64_t sent = left / copies_;
  if (has_fec_ && left > 0) {
    // FEC has left as well: of what was built, the stream's share.
    const std::uint64_t built = left + timing_->LeftOut + timing_->NotSent + timing_->Discarded;
    const auto own = static_cast<double>(counters_.DatagramsSent - counters_.LostPackets);
    const double share_left = static_cast<double>(left) / static_cast<double>(built);
    sent = static_cast<std::uint64_t>(std::llround(own * share_left));
  }
  if (time.count() <= 0 || sent <= datagrams_per_burst_) {
    return std::nullopt;
  }
  // By schedule a short last burst has a place of its own, too.
  const std::uint64_t spanned = (sent - 1) / datagrams_per_burst_ * datagrams_per_burst_;
  return static_cast<double>(spanned) / share_sent_ * ts_bytes_per_datagram_ * 8 / Seconds(time);
}

// N datagrams span N - 1 gaps, and all but the last are full. With bursts, count whole bursts: a
// short last burst follows the one before it at once. Those that were lost are counted by their
// share.
std::optional<double> StatusMeter::RateOf(std::uint64_t sent, nanoseconds time) const {
  if (sent < 2 * std::uint64_t{datagrams_per_burst_}) {
    return std::nullopt;
  }
  const std::uint64_t spanned = (sent / datagrams_per_burst_ - 1) * datagrams_per_burst_;
  const double datagrams = static_cast<double>(spanned) / share_sent_;
  return datagrams * ts_bytes_per_datagram_ * 8 / Seconds(time);
}

double StatusMeter::RateSince(const Reading& from) const {
  const Reading& to = readings_.back();
  return static_cast<double>(to.ts_bytes - from.ts_bytes) * 8 / Seconds(to.time - from.time);
}

Status StatusMeter::Total() const {
  Status status;
  status.counters = counters_;
  status.paused = Paused();
  status.set_rate = stream_rate_;
  if (first_ && !readings_.empty()) {
    status.elapsed = readings_.back().time - *first_;
  }
  if (timing_ && timing_->FirstDepartureNs >= 0) {
    status.elapsed = nanoseconds(timing_->LastDepartureNs - timing_->FirstDepartureNs);
  }
  if (readings_.size() >= 2) {
    status.recent_rate = RateSince(readings_.front());
  }
  status.mean_rate = MeanRate();
  const double played = static_cast<double>(counters_.TSBytesSent) * input_bytes_per_ts_byte_;
  if (round_bytes_ && played > 0) {
    // At its last byte a round is still the current one.
    status.round = static_cast<std::uint64_t>(
        std::max(std::ceil(played / static_cast<double>(*round_bytes_)), 1.0));
  }
  if (total_bytes_ && *total_bytes_ > 0) {
    const auto total = static_cast<double>(*total_bytes_);
    status.share = std::min(played / total, 1.0);
    const double left = std::max(total - played, 0.0) / input_bytes_per_ts_byte_ * 8 / stream_rate_;
    status.remaining = nanoseconds(std::llround(std::min(left * 1e9, 9e18)));
  }
  return status;
}

}  // namespace ipplay
