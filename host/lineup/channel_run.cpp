// SPDX-License-Identifier: MIT
#include "host/lineup/channel_run.h"

#include <algorithm>

#include "host/base/capabilities.h"
#include "host/base/wall_clock.h"

namespace ipplay {
namespace {

constexpr auto kRateWindow = std::chrono::seconds(3);
constexpr auto kLeastRateWindow = std::chrono::milliseconds(500);
constexpr std::uint64_t kLeastRing = 64 << 10;  // that the library takes

}  // namespace

Result<std::shared_ptr<ChannelRun>> ChannelRun::Make(const PlayOptions& options,
                                                     const std::vector<Adapter>& adapters,
                                                     Opened&& opened,
                                                     std::unique_ptr<Event> stop_reading,
                                                     double spread) {
  if (!options.also_to.empty()) {
    return UsageFailure("to: a channel has one target; give each of several a channel");
  }
  auto prepared = Prepare(options, adapters, std::move(opened));
  if (!prepared) {
    return prepared.Error();
  }
  if (const auto failure = CompletePath(options, prepared->path, prepared->plan)) {
    return *failure;
  }
  auto playout = ScheduledPlayout::Open();
  if (!playout) {
    return playout.Error();
  }
  std::shared_ptr<ChannelRun> run(
      new ChannelRun(std::move(*prepared), options, std::move(*playout), std::move(stop_reading)));
  if (const auto failure = run->Configure(spread)) {
    return *failure;
  }
  return run;
}

ChannelRun::ChannelRun(Prepared&& prepared, const PlayOptions& options, ScheduledPlayout playout,
                       std::unique_ptr<Event> stop_reading)
    : path_(prepared.path),
      plan_(prepared.plan),
      stop_reading_(std::move(stop_reading)),
      is_file_(prepared.input.Size().has_value()),
      playout_(std::move(playout)),
      reader_(MakeReader(std::move(prepared))),
      time_line_(options.time_line),
      ppm_(options.ppm),
      nominal_rate_(plan_.rates.stream / (1 + options.ppm / 1e6)),
      rate_(nominal_rate_) {}

std::optional<Failure> ChannelRun::Configure(double spread) {
  IpPlayoutSettings settings = plan_.schedule;
  settings.BitRate = 0;  // the feed sets marks
  settings.Refused = IPPLAYOUT_REFUSED_COUNTS;
  if (is_file_) {
    const std::uint64_t ring = std::max(ChannelFeed::AheadBytes(plan_), kLeastRing);
    settings.RingBytes = static_cast<std::uint32_t>(ring);
    settings.StartBytes = 0;  // written before the start
  }
  if (auto failure = playout_.Configure(settings)) {
    return failure;
  }
  if (plan_.lead) {
    live_feed_ = std::make_unique<LiveFeed>(std::move(reader_), plan_, playout_);
    return std::nullopt;
  }
  const auto gap = static_cast<double>(plan_.rates.gap.count()) * plan_.copies;
  const Time phase(static_cast<std::int64_t>(std::min(spread * gap, 1e9)));
  feed_ = std::make_unique<ChannelFeed>(std::move(reader_), plan_, ppm_, playout_, phase);
  if (is_file_) {
    feed_->Fill();
  } else {
    live_feeding_ = std::thread([this] {
      KeepCapabilities({});
      feed_->WriteAll();
    });
  }
  return std::nullopt;
}

ChannelRun::~ChannelRun() {
  Stop();
}

std::optional<ChannelRun::Time> ChannelRun::NextStart() {
  if (live_feed_) {
    return live_feed_->NextStart();
  }
  return is_file_ ? std::optional(ScheduledPlayout::Now()) : std::nullopt;
}

void ChannelRun::Started(Time at) {
  started_at_ = at;
  started_.store(true);
  if (live_feed_) {
    live_feed_->Begin();
  }
}

void ChannelRun::Feed() {
  if (is_file_ && !fed_) {
    fed_ = feed_->Fill() != ChannelFeed::Outcome::kFull;
  }
  TakeReading();
}

std::optional<Action> ChannelRun::TakeDue(Time now) {
  auto action = time_line_.TakeDue(now - started_at_);
  if (action && action->kind == ActionKind::kPause && action->length.count() > 0) {
    time_line_.Add({now - started_at_ + action->length, Action{ActionKind::kResume}});
  }
  return action;
}

void ChannelRun::TakeReading() {
  const Reading reading{ScheduledPlayout::Now(), playout_.Statistics().TSBytesSent};
  const std::lock_guard lock(mutex_);
  readings_.push_back(reading);
  while (readings_.size() > 2 && reading.time - readings_.front().time > kRateWindow) {
    readings_.pop_front();
  }
}

void ChannelRun::SetRate(std::optional<double> bit_rate, std::optional<double> ppm) {
  const std::lock_guard lock(mutex_);
  rate_ = bit_rate.value_or(rate_);
  ppm_ = ppm.value_or(ppm_);
  if (feed_) {
    feed_->SetSpeed(rate_ / nominal_rate_ * (1 + ppm_ / 1e6));
  }
}

double ChannelRun::SetBitRate() const {
  const std::lock_guard lock(mutex_);
  return rate_ * (1 + ppm_ / 1e6);
}

double ChannelRun::Ppm() const {
  const std::lock_guard lock(mutex_);
  return ppm_;
}

std::optional<double> ChannelRun::BitRate() const {
  const std::lock_guard lock(mutex_);
  if (readings_.size() < 2 || ended_ns_) {
    return std::nullopt;
  }
  const Time time = readings_.back().time - readings_.front().time;
  if (time < kLeastRateWindow || readings_.front().time < started_at_) {
    return std::nullopt;
  }
  return 8e9 * static_cast<double>(readings_.back().bytes - readings_.front().bytes) /
         static_cast<double>(time.count());
}

std::optional<double> ChannelRun::MeanBitRate() const {
  const PlayoutStatistics counters = playout_.Statistics();
  const IpPlayoutTiming timing = playout_.Timing();
  const auto time = static_cast<double>(timing.LastDepartureNs - timing.FirstDepartureNs);
  // The counters are ahead: they have what was built and has not left, or never will.
  const std::uint64_t frames = timing.OnTime + timing.Late + timing.NotSent + timing.LeftOut;
  const auto built = static_cast<double>(counters.DatagramsSent);
  const double left = std::min(
      static_cast<double>(frames) / plan_.copies + static_cast<double>(counters.LostPackets),
      built);
  if (timing.FirstDepartureNs < 0 || time <= 0 || left < 2) {
    return std::nullopt;
  }
  // What left with the last datagram ends with a gap that is not within the time.
  return 8e9 * static_cast<double>(counters.TSBytesSent) * (left - 1) / built / time;
}

void ChannelRun::Ended() {
  const std::lock_guard lock(mutex_);
  if (!ended_ns_) {
    ended_ns_ = WallClockNow().count();
  }
}

std::optional<std::int64_t> ChannelRun::EndedNs() const {
  const std::lock_guard lock(mutex_);
  return ended_ns_;
}

void ChannelRun::Stop() {
  const std::lock_guard lock(stop_mutex_);
  stopped_.store(true);
  stop_reading_->Set();
  playout_.Stop();
  if (live_feed_) {
    live_feed_->Join();
  }
  if (live_feeding_.joinable()) {
    live_feeding_.join();
  }
}

}  // namespace ipplay
