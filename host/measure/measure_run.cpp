// SPDX-License-Identifier: MIT
#include "host/measure/measure_run.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "host/base/capabilities.h"
#include "host/base/confinement.h"
#include "host/base/library_output.h"
#include "host/base/link.h"
#include "host/base/output_file.h"
#include "host/base/stop_signals.h"
#include "host/base/wall_clock.h"
#include "host/measure/capture/link_watch.h"
#include "host/measure/figures/dvb_text.h"
#include "host/measure/live_files.h"
#include "host/measure/results/json_view.h"
#include "host/measure/results/live_view.h"
#include "host/measure/results/plain_words.h"
#include "host/measure/results/report_html.h"
#include "host/measure/results/table_view.h"

namespace ipplay::measure {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kReadTimeoutMs = 50;
constexpr auto kRedrawInterval = std::chrono::seconds(1);
constexpr auto kDropsInterval = std::chrono::seconds(1);
// Frames on their way from the adapter to us when the time is over.
constexpr auto kLastFramesWait = std::chrono::milliseconds(200);
constexpr std::int64_t kLastFramesNs = std::chrono::nanoseconds(kLastFramesWait).count();
// Bounds the reading of the rest of the buffer, in case frames come faster than they are read.
constexpr auto kLongestDrain = std::chrono::seconds(2);
// Lines of the live table besides the streams, on a narrow screen.
constexpr std::size_t kOtherLines = 7;
constexpr std::size_t kReserveBytes = std::size_t{32} << 20;

// An adapter's name is the adapter; ./name is the file beside it.
bool IsFile(const std::string& source) {
  if (source == "-" || source.find('/') != std::string::npos) {
    return true;
  }
  return source != "any" && !QueryLink(source).up && ::access(source.c_str(), F_OK) == 0;
}

// When a measurement that has no end of its own is over, by the clock of this machine.
class EndWatch {
 public:
  explicit EndWatch(const MeasureOptions& options) : options_(options) {}

  // What was read after `now` is in `measurement`; `waiting` says that there may be more. Frames
  // that came before count first, however late they are read, as after a pause of this process.
  bool IsOver(Clock::time_point now, const Measurement& measurement, bool waiting) {
    const std::uint64_t frames = measurement.Rate().Frames();
    if (frames != frames_) {
      if (frames_ == 0) {
        first_ = now;
      }
      last_ = now;
      frames_ = frames;
    }
    if (!TimeIsOver(now)) {
      over_since_ = Clock::time_point::max();
      return false;
    }
    over_since_ = std::min(over_since_, now);
    return !waiting || now - over_since_ > kLongestDrain;
  }

  // The wait that ended the run is not the traffic's fault.
  bool EndedBySilence() const {
    return ended_by_silence_ || sender_end_ != Clock::time_point::max();
  }

 private:
  bool TimeIsOver(Clock::time_point now) {
    ended_by_silence_ = false;
    if (options_.sender_ended && options_.sender_ended()) {
      sender_end_ = std::min(sender_end_, now);
      return now - sender_end_ > kLastFramesWait;
    }
    if (options_.duration && now - first_ > *options_.duration + kLastFramesWait) {
      return true;
    }
    if (frames_ == 0) {
      return options_.wait && now - first_ > *options_.wait;
    }
    ended_by_silence_ = options_.silence && now - last_ > *options_.silence;
    return ended_by_silence_;
  }

  const MeasureOptions& options_;
  bool ended_by_silence_ = false;
  std::uint64_t frames_ = 0;
  Clock::time_point first_ = Clock::now();  // of the first frame; until then, of the start
  Clock::time_point last_;
  Clock::time_point sender_end_ = Clock::time_point::max();
  Clock::time_point over_since_ = Clock::time_point::max();
};

class MeasureRun {
 public:
  MeasureRun(const MeasureOptions& options, CaptureSource source,
             const MeasurementSettings& settings, LiveFiles files, const RunInfo& info)
      : options_(options),
        source_(std::move(source)),
        measurement_(settings),
        files_(std::move(files)),
        view_(!options.quiet && source_.IsUnderWay()),
        link_(source_.IsLive() ? options.source : "") {
    files_.Start(measurement_, info);
  }

  // Takes frames until the end. Returns why it ended early, if it did.
  std::optional<Failure> Run() {
    // From here on no frame is missed.
    if (options_.start_sender) {
      if (!options_.start_sender()) {
        return Failure{ExitStatus::kFailed, "cannot start the sender"};
      }
    } else if (source_.IsLive() && !options_.quiet) {
      Print(stderr, "Measuring on {}\n", options_.source);
    }
    if (auto failure = Confine()) {
      return failure;
    }
    auto failure = TakeFrames();
    reserve_.reset();
    if (StopSignals::Came() != 0) {
      Drain();
    }
    view_.Draw("");
    TakeDrops();
    TakeLinkChanges();
    if (!failure && !link_.IsUp()) {
      failure =
          Failure{ExitStatus::kFailed, fmt::format("the link of {} is down", options_.source)};
    }
    const bool by_clock = UsesThisClock() && !ended_by_silence_;
    measurement_.Finish(by_clock ? std::optional(WallClockNow().count()) : std::nullopt);
    files_.Finish(measurement_);
    return failure;
  }

  ipplay::measure::Summary MakeSummary(StreamDetail detail) const {
    return Summarize(measurement_, options_.source, source_.IsLive(), drops_, detail);
  }
  // Asked before the results are made, since the JSON tree cannot be taken down without memory.
  bool HasRoomForStreams() const {
    constexpr std::size_t kOfStream = 32 * 1024;
    return !source_.OutOfMemory() &&
           std::unique_ptr<char[]>(
               new (std::nothrow) char[measurement_.Streams().Streams().size() * kOfStream + 1]) !=
               nullptr;
  }
  const Measurement& Measured() const { return measurement_; }
  std::optional<Failure> WriteFailure() const { return files_.WriteFailure(); }

 private:
  // Of a pipe or a file only the frames say what time it is, and an adapter's clock is its own.
  bool UsesThisClock() const { return source_.IsLive() && !options_.capture.adapter_time_stamps; }

  // The adapter is open, and all else that is needed.
  std::optional<Failure> Confine() const {
    PrepareDvbText();
    const bool writes = !options_.report_file.empty();
    // A report may have to be written where root alone may, and is root's; a sender may have to be
    // ended.
    auto failure = writes ? BecomeUnprivileged({kCapKill, kCapDacOverride, kCapFowner, kCapChown})
                   : options_.start_sender ? BecomeUnprivileged({kCapKill})
                                           : BecomeUnprivileged({});
    if (!failure) {
      AllowReadingFramesOnly(writes ? NewFiles::kAllowed : NewFiles::kNone);
    }
    return failure;
  }

  std::optional<Failure> TakeFrames() {
    EndWatch& end = end_.emplace(options_);
    source_.WhileWaiting([this] {
      const auto now = Clock::now();
      DrawWhenDue(now);
      return !end_->IsOver(now, measurement_, false);
    });
    while (StopSignals::Came() == 0 && !measurement_.IsComplete()) {
      const auto now = Clock::now();
      const auto status = source_.Read(measurement_, kReadTimeoutMs);
      TakeLinkChanges();
      if (status == CaptureSource::ReadStatus::kNothingYet && UsesThisClock()) {
        measurement_.AdvanceTo(WallClockNow().count() - kLastFramesNs);
      }
      if (now >= next_drops_) {
        TakeDrops();
        next_drops_ = now + kDropsInterval;
      }
      if (status == CaptureSource::ReadStatus::kFailed) {
        return Failure{ExitStatus::kFailed, source_.Error()};
      }
      if (auto failure = ExpectedFileFailure()) {
        return failure;
      }
      const bool waiting = status == CaptureSource::ReadStatus::kFrames;
      if (status == CaptureSource::ReadStatus::kEnd ||
          (source_.IsUnderWay() && end.IsOver(now, measurement_, waiting))) {
        break;
      }
      DrawWhenDue(now);
    }
    source_.WhileWaiting([] { return true; });  // the stop is looked at in any case
    ended_by_silence_ = end.EndedBySilence();
    return std::nullopt;
  }

  std::optional<Failure> ExpectedFileFailure() const {
    const auto& expected = measurement_.Settings().expected;
    if (expected == nullptr || !expected->IsBroken()) {
      return std::nullopt;
    }
    return Failure{ExitStatus::kFailed,
                   fmt::format("--expect {}: {}", options_.expected_file, expected->Error())};
  }

  void DrawWhenDue(Clock::time_point now) {
    if (view_.IsShown() && now >= next_draw_) {
      Draw();
      next_draw_ = now + kRedrawInterval;
    }
  }

  void TakeLinkChanges() {
    while (const auto up = link_.TakeChange()) {
      measurement_.Events().Report(
          {.time_ns = WallClockNow().count(), .kind = EventKind::kLink, .amount = *up ? 1 : 0});
      if (!options_.quiet) {
        view_.Draw("");
        Print(stderr, "ipplay: the link of {} is {}\n", options_.source, *up ? "up again" : "down");
      }
    }
  }

  void TakeDrops() {
    const CaptureDrops before = std::exchange(drops_, source_.Drops());
    const std::uint64_t more =
        drops_.by_kernel + drops_.by_adapter - before.by_kernel - before.by_adapter;
    if (more > 0) {
      measurement_.Events().Report({.time_ns = WallClockNow().count(),
                                    .kind = EventKind::kCaptureDrop,
                                    .amount = static_cast<std::int64_t>(more)});
    }
  }

  // Frames that came before the user's stop belong to the measurement.
  void Drain() {
    const auto deadline = Clock::now() + kLongestDrain;
    while (source_.IsUnderWay() && Clock::now() < deadline &&
           source_.Read(measurement_, 0) == CaptureSource::ReadStatus::kFrames) {
    }
  }

  void Draw() {
    CaptureSummary capture;
    capture.source = options_.source;
    capture.live = source_.IsLive();
    capture.drops = source_.Drops();
    const auto& streams = measurement_.Streams().Streams();
    const std::size_t room = view_.Rows() > kOtherLines ? view_.Rows() - kOtherLines : 1;
    std::vector<StreamSummary> rows;
    for (const auto& stream : streams) {
      if (rows.size() >= std::min<std::size_t>(options_.rows, room)) {
        break;
      }
      rows.push_back(Summarize(*stream, measurement_.Settings()));
    }
    view_.Draw(LiveTable(capture, SummarizeTotal(measurement_), rows, view_.Columns()));
  }

  const MeasureOptions& options_;
  CaptureSource source_;
  std::optional<EndWatch> end_;
  bool ended_by_silence_ = false;
  Measurement measurement_;
  LiveFiles files_;
  LiveView view_;
  LinkWatch link_;
  // Address space that the results take if frames took all the rest.
  std::unique_ptr<char[]> reserve_{new char[kReserveBytes]};
  Clock::time_point next_draw_ = Clock::now() + kRedrawInterval;
  Clock::time_point next_drops_ = Clock::now() + kDropsInterval;
  CaptureDrops drops_;
};

std::string LocalDate() {
  return fmt::format("{:%Y-%m-%d %H:%M:%S %Z}", fmt::localtime(std::time(nullptr)));
}

Result<MeasurementSettings> SettingsOf(const MeasureOptions& options) {
  MeasurementSettings settings = options.measurement;
  if (options.duration) {
    settings.max_duration_ns = options.duration->count();
  }
  if (const auto mtu = QueryLink(options.source).mtu; mtu && !IsFile(options.source)) {
    settings.longest_ip_packet = *mtu;
  }
  if (!options.expected_file.empty()) {
    auto file = SteadyFile::Open(options.expected_file);
    if (!file) {
      return UsageFailure(
          fmt::format("--expect {}: {}", options.expected_file, file.Error().message));
    }
    settings.expected = std::make_shared<ExpectedContent>(*file);
    if (settings.expected->IsBroken()) {
      return UsageFailure(
          fmt::format("--expect {}: {}", options.expected_file, settings.expected->Error()));
    }
  }
  return settings;
}

Requirements RequirementsOf(const MeasureOptions& options) {
  Requirements requirements;
  for (const auto& limit : options.limits) {
    if (limit) {
      requirements.limits.push_back(*limit);
    }
  }
  requirements.min_streams = options.min_streams;
  requirements.content_equal = !options.expected_file.empty();
  return requirements;
}

// Refuses options that only an adapter can serve.
std::optional<Failure> CheckFileOptions(const MeasureOptions& options) {
  const struct {
    const char* option;
    bool is_given;
  } kOfAdapters[] = {{"--direction", options.capture.direction != Direction::kBoth},
                     {"--adapter-timestamps", options.capture.adapter_time_stamps},
                     {"--no-promiscuous", !options.capture.promiscuous},
                     {"--join", !options.joins.empty()}};
  for (const auto& [option, is_given] : kOfAdapters) {
    if (is_given) {
      return UsageFailure(fmt::format("{}: {} is a file; leave it out, or give an adapter", option,
                                      options.source));
    }
  }
  return std::nullopt;
}

using Given = std::vector<std::pair<std::string, std::string>>;

Result<CaptureSource> OpenSource(const MeasureOptions& options) {
  const bool is_file = IsFile(options.source);
  if (!is_file && options.follow) {
    return UsageFailure(
        fmt::format("--follow: {} is an adapter; leave it out, or give a file", options.source));
  }
  if (!is_file) {
    LiveSettings live = options.capture;
    live.device = options.source;
    return CaptureSource::OpenLive(live);
  }
  if (auto failure = CheckFileOptions(options)) {
    return *std::move(failure);
  }
  auto source = CaptureSource::OpenFile({options.source, options.capture.filter, options.follow});
  if (source && !source->IsUnderWay() && (options.silence || options.wait)) {
    return UsageFailure(
        fmt::format("{}: {} is a file that ends by itself; leave it out, or add --follow",
                    options.silence ? "--silence" : "--wait", options.source));
  }
  return source;
}

// Prints and writes what was asked for. The exit status, or why there is none.
Result<int> Conclude(const MeasureOptions& options, const MeasureRun& run, StreamDetail detail,
                     const std::optional<Failure>& failure,
                     const std::optional<OutputFile>& report_file, const RunInfo& info) {
  Summary summary = run.MakeSummary(detail);
  summary.run = info;
  if (failure) {
    summary.capture.broken_off = failure->message;
  }
  const auto verdicts = Judge(summary, RequirementsOf(options));
  if (options.json) {
    WriteJson(summary, verdicts, [](std::string_view part) { Print(Results(), "{}", part); });
    Print(Results(), "\n");
  } else if (options.plain_words) {
    Print(Results(), "{}", PlainWords(summary, verdicts));
  } else {
    const ResultTableSettings table{.max_streams = options.rows};
    Print(Results(), "{}", ResultTable(summary, verdicts, table));
  }
  std::fflush(Results());
  if (report_file) {
    auto refused = report_file->Commit(
        ReportHtml({summary, run.Measured(), verdicts, info.options, LocalDate()}));
    if (refused) {
      return *std::move(refused);
    }
  }
  if (failure) {
    return *failure;
  }
  if (const auto unwritten = run.WriteFailure()) {
    return *unwritten;
  }
  return AllMet(verdicts) ? static_cast<int>(ExitStatus::kPlayed) : kLimitsNotMet;
}

}  // namespace

Result<int> RunMeasurement(const MeasureOptions& options, const Given& settings) {
  const auto measurement_settings = SettingsOf(options);
  if (!measurement_settings) {
    return measurement_settings.Error();
  }
  // Not before: to read a large --expect takes long, and there are no results yet.
  StopSignals::Take();
  std::optional<OutputFile> report_file;
  if (!options.report_file.empty()) {
    auto file = OutputFile::Create("--report", options.report_file, options.report_over);
    if (!file) {
      return file.Error();
    }
    report_file = std::move(*file);
  }
  auto source = OpenSource(options);
  if (!source) {
    return source.Error();
  }
  GroupMembership membership;  // to the end, whatever it is
  if (auto failure = membership.Join(options.source, options.joins)) {
    return *std::move(failure);
  }
  auto files = LiveFiles::Create(options);
  if (!files) {
    return files.Error();
  }
  const RunInfo info{IPPLAYOUT_VERSION, WallClockNow().count(), settings};
  MeasureRun run(options, std::move(*source), *measurement_settings, std::move(*files), info);
  const auto failure = run.Run();
  if (run.HasRoomForStreams()) {
    return Conclude(options, run, StreamDetail::kAll, failure, report_file, info);
  }
  // The sums take next to nothing.
  const Failure why{ExitStatus::kFailed,
                    "no memory left for the results of single streams; these are the sums"};
  return Conclude(options, run, StreamDetail::kNone, failure ? failure : why, report_file, info);
}

}  // namespace ipplay::measure
