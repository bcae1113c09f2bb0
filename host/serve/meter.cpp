// SPDX-License-Identifier: MIT
#include "host/serve/meter.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "host/base/link.h"
#include "host/base/wall_clock.h"
#include "host/measure/figures/dvb_text.h"
#include "host/measure/results/event_lines.h"
#include "host/measure/results/report_html.h"
#include "host/measure/results/second_lines.h"

namespace ipplay::serve {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kReadTimeoutMs = 50;
// Frames on their way from the adapter to us.
constexpr std::int64_t kLastFramesNs = 200'000'000;
constexpr std::uint32_t kStreamsInEvents = 100;
// Of the time, for figures of thousands of streams.
constexpr int kShareForFigures = 20;

measure::MeasurementSettings SettingsOf(const MeterOrder& order) {
  measure::MeasurementSettings settings = order.options.measurement;
  if (const auto mtu = QueryLink(order.options.source).mtu) {
    settings.longest_ip_packet = *mtu;
  }
  return settings;
}

}  // namespace

std::string_view NameOf(MeterState state) {
  switch (state) {
    case MeterState::kRunning:
      return "running";
    case MeterState::kEnded:
      return "ended";
    case MeterState::kFailed:
      return "failed";
  }
  return "";
}

Result<MeterSource> OpenMeterSource(const MeterOrder& order) {
  measure::LiveSettings live = order.options.capture;
  live.device = order.options.source;
  auto frames = measure::CaptureSource::OpenLive(live);
  if (!frames) {
    return frames.Error();
  }
  MeterSource source{std::move(*frames), {}};
  if (auto failure = source.membership.Join(order.options.source, order.options.joins)) {
    return *std::move(failure);
  }
  return source;
}

// Rows of all streams of one second, which come behind one another, as one event.
class Meter::Rows : public measure::SecondSink {
 public:
  explicit Rows(Meter& meter)
      : meter_(meter),
        lines_(
            measure::SecondLines::Format::kJson,
            [this](std::string_view line) { rows_.push_back(Json::parse(line)); },
            meter.measurement_.Streams()) {}

  void Add(const measure::StreamSecond& second) override {
    if (second.start_ns != start_ns_) {
      Flush();
      start_ns_ = second.start_ns;
    }
    if (second.stream >= kStreamsInEvents) {
      ++left_out_;
      return;
    }
    lines_.Add(second);
    const std::lock_guard lock(meter_.mutex_);
    meter_.figures_.seconds[second.stream] = second;
  }

  void Flush() {
    if (!rows_.empty()) {
      meter_.feed_.Append("seconds", {{"time_ns", start_ns_},
                                      {"meter", meter_.order_.name},
                                      {"streams", std::exchange(rows_, Json::array())},
                                      {"left_out", std::exchange(left_out_, 0)}});
    }
  }

 private:
  Meter& meter_;
  Json rows_ = Json::array();
  std::int64_t start_ns_ = 0;
  std::uint64_t left_out_ = 0;
  measure::SecondLines lines_;
};

Meter::Meter(MeterOrder order, MeterSource source, EventFeed& feed)
    : order_(std::move(order)),
      feed_(feed),
      source_(std::move(source)),
      measurement_(SettingsOf(order_)) {
  measure::PrepareDvbText();
  figures_.started_ns = WallClockNow().count();
  feed_.Append("meter",
               {{"meter", order_.name}, {"state", NameOf(figures_.state)}, {"text", "measures"}});
  thread_ = std::thread([this] { Run(); });
}

Meter::~Meter() {
  Stop();
}

void Meter::Stop() {
  stops_.store(true);
  const std::lock_guard lock(stop_mutex_);
  if (thread_.joinable()) {
    thread_.join();
  }
}

Meter::Figures Meter::Read() const {
  const std::lock_guard lock(mutex_);
  return figures_;
}

void Meter::Run() {
  Rows rows(*this);
  measure::EventLines events(
      [this](std::string_view line) {
        Json event = Json::parse(line);
        const Json time = event["time_ns"];
        feed_.Append("measured",
                     {{"time_ns", time}, {"meter", order_.name}, {"measured", std::move(event)}});
      },
      measurement_.Streams());
  measurement_.Events().ForwardTo(&events);
  measurement_.ReportSecondsTo(&rows);
  const std::string error = TakeFrames(rows);
  // Frames that came before the stop belong to the measurement.
  const auto deadline = Clock::now() + std::chrono::seconds(1);
  while (error.empty() && Clock::now() < deadline &&
         source_.frames.Read(measurement_, 0) == measure::CaptureSource::ReadStatus::kFrames) {
  }
  TakeDrops();
  measurement_.Finish(order_.options.capture.adapter_time_stamps
                          ? std::nullopt
                          : std::optional(WallClockNow().count()));
  rows.Flush();
  measurement_.Events().ForwardTo(nullptr);
  measurement_.ReportSecondsTo(nullptr);
  Conclude(error);
}

std::string Meter::TakeFrames(Rows& rows) {
  auto next = Clock::now() + std::chrono::seconds(1);
  while (!stops_.load()) {
    const auto status = source_.frames.Read(measurement_, kReadTimeoutMs);
    if (status == measure::CaptureSource::ReadStatus::kFailed) {
      return source_.frames.Error();
    }
    if (status == measure::CaptureSource::ReadStatus::kNothingYet &&
        !order_.options.capture.adapter_time_stamps) {
      measurement_.AdvanceTo(WallClockNow().count() - kLastFramesNs);
    }
    rows.Flush();
    if (const auto now = Clock::now(); now >= next) {
      Publish();
      const auto took = Clock::now() - now;
      next = std::max(next + std::chrono::seconds(1), now + kShareForFigures * took);
    }
  }
  return "";
}

void Meter::TakeDrops() {
  const measure::CaptureDrops before = std::exchange(drops_, source_.frames.Drops());
  const std::uint64_t more =
      drops_.by_kernel + drops_.by_adapter - before.by_kernel - before.by_adapter;
  if (more > 0) {
    measurement_.Events().Report({.time_ns = WallClockNow().count(),
                                  .kind = measure::EventKind::kCaptureDrop,
                                  .amount = static_cast<std::int64_t>(more)});
  }
}

void Meter::Publish() {
  TakeDrops();
  auto summary = std::make_shared<measure::Summary>(
      Summarize(measurement_, order_.options.source, true, drops_));
  summary->run = {IPPLAYOUT_VERSION, figures_.started_ns, order_.given};
  const std::lock_guard lock(mutex_);
  figures_.summary = std::move(summary);
}

void Meter::Conclude(const std::string& error) {
  Publish();
  MeterState state{};
  {
    const std::lock_guard lock(mutex_);
    figures_.state = state = error.empty() ? MeterState::kEnded : MeterState::kFailed;
    figures_.ended_ns = WallClockNow().count();
    figures_.last_error = error;
  }
  feed_.Append("meter", {{"meter", order_.name},
                         {"state", NameOf(state)},
                         {"text", error.empty() ? "ended" : "failed: " + error}});
}

std::optional<std::string> Meter::Report() const {
  const Figures figures = Read();
  if (figures.state == MeterState::kRunning || !figures.summary) {
    return std::nullopt;
  }
  // Nothing is added any more.
  return measure::ReportHtml(
      {*figures.summary, measurement_, {}, order_.given, UtcText(figures.started_ns)});
}

}  // namespace ipplay::serve
