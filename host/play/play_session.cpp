// SPDX-License-Identifier: MIT
#include "host/play/play_session.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "host/base/library_output.h"
#include "host/base/stop_signals.h"
#include "host/base/units.h"
#include "host/play/held_back.h"
#include "host/play/make_playing.h"
#include "host/play/orders.h"
#include "host/play/report.h"
#include "host/play/start_rights.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {
namespace {

using std::chrono::nanoseconds;
using namespace std::chrono_literals;

constexpr const char* kKeys =
    "keys: space pause, l lose, s delay, d duplicate, c corrupt, i bad IP checksum, u bad UDP "
    "checksum, q stop, ? help";

std::unique_ptr<StreamFaults> MakeStreamFaults(const PlayOptions& options, const PlayPlan& plan,
                                               PacketFormat input) {
  constexpr std::uint64_t kApart = 0x5354;  // from the library's draws
  if (options.stream_faults.empty()) {
    return nullptr;
  }
  return std::make_unique<StreamFaults>(StreamEditor::Format(input, plan.edits),
                                        options.stream_faults, plan.schedule.Seed ^ kApart);
}

std::string ReadFailure(int error) {
  return error == ENODATA ? "the file has become shorter" : std::strerror(error);
}

}  // namespace

PlaySession::PlaySession(const PlayOptions& options, const PlayPlan& plan,
                         const std::optional<TwinPath>& twin, std::unique_ptr<RoundReader> reader,
                         std::vector<Output> further, SapAnnouncers announcers,
                         const Event& stop_reading, LineServer* control)
    : options_(options),
      plan_(plan),
      twin_(twin),
      announcers_(std::move(announcers)),
      stop_reading_(stop_reading),
      control_(control),
      time_line_({}),
      meter_(plan),
      stream_faults_(MakeStreamFaults(options, plan, reader->Format())),
      playing_(MakePlaying(options, plan, StreamEditor::Format(reader->Format(), plan.edits),
                           stream_faults_.get(), twin)),
      faults_(*playing_),
      further_(std::move(further), StreamEditor::Format(reader->Format(), plan.edits)),
      changes_(options, plan),
      feeder_(std::move(reader), plan.edits, plan.rounds.Streams(), further_.With(playing_->Sink()),
              plan.IsMarked() ? nullptr : stream_faults_.get()) {
  OrderAhead();
}

PlaySession::~PlaySession() {
  if (running_) {
    Finish(false);
  }
}

ExitStatus PlaySession::Run() {
  if (!Start()) {
    return ExitStatus::kFailed;
  }
  Loop();
  return Conclude();
}

bool PlaySession::Start() {
  StopSignals::Take();
  if (!options_.WantsJson() && !options_.quiet) {
    terminal_ = Terminal::Open();
  }
  start_ = Clock::now();
  next_report_ = terminal_ ? 0s : ReportInterval();
  const StopSignals::HeldBack held_back;  // the threads that start here take none
  const auto reason = StartOutputs();
  DropRightsToStart();
  if (reason) {
    Print(stderr, "ipplay: the playout cannot start: {}\n", *reason);
    return false;
  }
  running_ = true;
  if (const auto at = playing_->StartsAt()) {
    start_ = Clock::time_point(*at);
  }
  feeder_.Start();
  if (terminal_) {
    Print(stderr, "{}\n", kKeys);
  }
  return true;
}

std::optional<std::string> PlaySession::StartOutputs() {
  if (auto reason = playing_->Start()) {
    return reason;
  }
  auto reason = further_.Start();
  if (reason) {
    playing_->Stop();
  }
  return reason;
}

void PlaySession::Loop() {
  while (running_) {
    Announce();
    WaitForSomething();
    if (!running_) {
      return;
    }
    ReadCounters(Now());
    ReportDoneFaults();
    while (const auto action = time_line_.TakeDue(Now())) {
      Do(*action, "--at");
    }
    if (running_) {
      ReportWhenDue();
    }
  }
}

void PlaySession::Announce() {
  for (const auto& announcer : announcers_) {
    if (const auto why = announcer->SendWhenDue(Clock::now())) {
      Warn(*why);
    }
  }
}

nanoseconds PlaySession::ReportInterval() const {
  if (options_.WantsJson()) {
    return 1s;
  }
  return terminal_ ? nanoseconds(250ms) : nanoseconds(5s);
}

// The next time at which there is something to do. The measured bit rate counts from the first
// datagram, so the counters are read often until it has left; for a file, which starts within
// moments and may be short, more often still.
nanoseconds PlaySession::NextWake() const {
  constexpr nanoseconds kShortlyBefore = 10ms;
  nanoseconds wake = next_report_;
  if (const auto time = time_line_.NextTime()) {
    wake = std::min(wake, *time);
  }
  for (const auto& announcer : announcers_) {
    wake = std::min<nanoseconds>(wake, announcer->Next() - start_);
  }
  if (!meter_.Started() && Now() < -kShortlyBefore) {
    wake = std::min(wake, -kShortlyBefore);  // of a start that is to come
  } else if (!meter_.Started()) {
    wake =
        std::min(wake, Now() + (plan_.rounds.round_bytes ? nanoseconds(200us) : nanoseconds(2ms)));
  } else if (!meter_.IsSteady()) {
    wake = std::min(wake, Now() + 20ms);
  }
  if (playing_->Faults().Waiting > 0) {
    wake = std::min(wake, Now() + (playing_->TakesTimes() ? nanoseconds(100ms) : nanoseconds(2ms)));
  }
  return wake;
}

void PlaySession::WaitForSomething() {
  const nanoseconds wait = std::max(NextWake() - Now(), nanoseconds(0));
  const timespec timeout{.tv_sec = static_cast<time_t>(wait / 1s),
                         .tv_nsec = static_cast<long>((wait % 1s).count())};
  std::array<pollfd, 5> waits{{{playing_->EndDescriptor(), POLLIN, 0},
                               {StopSignals::Fd(), POLLIN, 0},
                               {terminal_ ? terminal_->Fd() : -1, POLLIN, 0},
                               {continued_.Get(), POLLIN, 0},
                               {control_ != nullptr ? control_->Fd() : -1, POLLIN, 0}}};
  if (::ppoll(waits.data(), waits.size(), &timeout, nullptr) <= 0) {
    return;
  }
  if (waits[0].revents != 0) {
    if (const auto reason = playing_->Failed()) {
      failed_ = true;
      failure_ = *reason;
    }
    return Finish(!failed_);
  }
  if (const int signal = StopSignals::Came()) {
    return Stop(signal == SIGINT ? "Stopped by Ctrl-C" : "Stopped by a signal");
  }
  if (waits[3].revents != 0) {
    TakeContinue();
  }
  if ((waits[2].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
    return Stop("Stopped: the terminal is gone");
  }
  if (waits[2].revents != 0) {
    TakeKeys();
  }
  if (waits[4].revents != 0) {
    TakeControl();
  }
}

void PlaySession::TakeContinue() {
  if (!continued_.Take()) {
    return;
  }
  if (terminal_) {
    terminal_->TakeKeys();
  }
}

void PlaySession::TakeKeys() {
  while (terminal_) {
    const auto key = terminal_->ReadKey();
    if (!key) {
      return;
    }
    PressKey(*key);
  }
}

void PlaySession::PressKey(char key) {
  constexpr std::pair<char, ActionKind> kActions[] = {
      {'l', ActionKind::kLose},          {'s', ActionKind::kDelay},
      {'d', ActionKind::kDuplicate},     {'c', ActionKind::kCorrupt},
      {'i', ActionKind::kBadIpChecksum}, {'u', ActionKind::kBadUdpChecksum},
      {'q', ActionKind::kStop}};
  if (key == ' ') {
    Do({meter_.Paused() ? ActionKind::kResume : ActionKind::kPause, 0s}, "key");
  } else if (key == '?' || key == 'h') {
    Say(kKeys);
  } else if (const auto* found =
                 std::ranges::find(kActions, key, &std::pair<char, ActionKind>::first);
             found != std::end(kActions)) {
    Do({found->second, 0s}, "key");
  }
}

void PlaySession::TakeControl() {
  control_->Serve([this](std::string_view line) { return Control(line); });
}

std::string PlaySession::Control(std::string_view line) {
  const ControlOrder order = ParseControl(line);
  if (const auto* why = std::get_if<std::string>(&order.what)) {
    return Refused(order, *why);
  }
  if (!running_) {
    return Refused(order, "the playout has been stopped");
  }
  if (const auto* action = std::get_if<Action>(&order.what)) {
    const auto refused = Obey(*action, "control");
    return refused ? Refused(order, *refused) : Accepted(order);
  }
  if (const auto* request = std::get_if<ChangeRequest>(&order.what)) {
    return ChangeRun(order, *request);
  }
  timing_ = playing_->Timing();
  return WithStatus(order, StatusJson(options_, plan_, Progress(), "progress"));
}

std::string PlaySession::ChangeRun(const ControlOrder& order, const ChangeRequest& request) {
  const auto changed = changes_.With(request);
  if (!changed) {
    return Refused(order, changed.Error().message);
  }
  Change change = changes_.Of(*changed);
  change.at = CommonTime();
  auto refused = playing_->Alter(change);
  refused = refused ? refused : further_.Alter(change);
  if (refused) {
    return Refused(order, *refused);
  }
  changes_.Take(*changed);
  const double rate = changes_.RateOf(*changed);
  meter_.SetRate(rate);
  const auto timing = playing_->Timing();
  const nanoseconds at = change.at + nanoseconds(timing ? timing->ShiftNs : 0);
  const std::string text = Describe(request);
  if (options_.WantsJson()) {
    Emit(EventJson("changed", at, text));
  }
  SayAt("control: " + text, at);
  return Changed(order, request, at, rate);
}

// Of the schedule: none of the targets has built what is due then.
nanoseconds PlaySession::CommonTime() const {
  return playing_->Position() + changes_.Lead();
}

void PlaySession::Do(const Action& action, const std::string& by) {
  if (const auto refused = Obey(action, by)) {
    Say(fmt::format("{}: {}: {}", by, NameOf(action.kind), *refused));
  }
}

// Why it is refused; nothing when it is not.
std::optional<std::string> PlaySession::Obey(const Action& action, const std::string& by) {
  switch (action.kind) {
    case ActionKind::kPause:
      Pause(true);
      if (action.length > 0s) {
        time_line_.Add({Now() + action.length, {ActionKind::kResume, 0s}});
      }
      return std::nullopt;
    case ActionKind::kResume:
      Pause(false);
      return std::nullopt;
    case ActionKind::kStop:
      Stop(fmt::format("Stopped by {}", by));
      return std::nullopt;
    default:
      return Order(action, 0s, by);
  }
}

// What is damaged at a given time is so wherever the clock of the schedule runs, as it does in a
// file that is written at once. The time line keeps the rest.
void PlaySession::OrderAhead() {
  for (const auto& [time, action] : options_.time_line) {
    if (IsFault(action.kind) && playing_->TakesTimes()) {
      Order(action, time, "--at");  // refused at the start, if at all
    } else {
      time_line_.Add({time, action});
    }
  }
}

std::optional<std::string> PlaySession::Order(const Action& action, nanoseconds at,
                                              const std::string& by) {
  if (action.of_twin && !twin_) {
    return "needs --twin";
  }
  if (!further_.Any()) {
    return faults_.Order(action, at, by);
  }
  const nanoseconds common = running_ ? CommonTime() : at;
  auto refused = further_.Order(action, common);
  return refused ? refused : faults_.Order(action, common, by);
}

void PlaySession::ReportDoneFaults() {
  const std::vector<OrderedFaults::Done> all_done = faults_.TakeDone();
  // Not that of the last report: there may have been a pause since.
  const auto timing = all_done.empty() ? std::nullopt : playing_->Timing();
  const nanoseconds shift(timing ? timing->ShiftNs : 0);
  for (const auto& [done, kind, by] : all_done) {
    const nanoseconds due = done.FirstDueNs < 0 ? Now() : nanoseconds(done.FirstDueNs) + shift;
    if (options_.WantsJson()) {
      Emit(FaultJson(done, kind, by, due));
    }
    SayAt(fmt::format("{}: {}", by, DoneText(done, kind)), due);
  }
}

void PlaySession::WarnOfFaultsNotDone() {
  if (const std::uint64_t waiting = playing_->Faults().Waiting) {
    Warn(fmt::format("{} of the ordered errors {} not made: the playout ended before",
                     FormatCount(waiting), waiting == 1 ? "was" : "were"));
  }
}

void PlaySession::Pause(bool on) {
  playing_->Pause(on);
  further_.Pause(on);
  meter_.SetPaused(on);
  const char* const state = on ? "paused" : "playing";
  if (options_.WantsJson()) {
    Emit(EventJson(state, Now()));
  }
  Say(state);
}

// Restores the terminal first: stopping may take a second.
void PlaySession::Stop(const std::string& outcome) {
  if (!running_) {
    return;
  }
  outcome_ = outcome;
  ClearProgress();
  terminal_.reset();
  Finish(false);
}

// The playout's time ends here, before its threads have ended; the final counters follow them.
void PlaySession::Finish(bool complete) {
  ReadCounters(Now());
  running_ = false;
  feeder_.Stop();
  stop_reading_.Set();
  further_.Stop(complete);
  if (const auto reason = playing_->Stop()) {
    failed_ = true;
    failure_ = *reason;
  }
  feeder_.Join();
  timing_ = playing_->Timing();
  ReportDoneFaults();
  unsent_ = timing_ ? timing_->NotSent + (failed_ ? timing_->Discarded : 0) : CountUnsent();
  if (const auto twin = TwinProgress()) {
    unsent_ += twin->timing->NotSent + (failed_ ? twin->timing->Discarded : 0);
  }
  meter_.End(playing_->Counters(), complete, timing_);
  announcers_.clear();
}

void PlaySession::ReadCounters(nanoseconds now) {
  meter_.Read(playing_->Counters(), now);
}

void PlaySession::ReportWhenDue() {
  WarnOfInput();
  if (Now() < next_report_) {
    return;
  }
  timing_ = playing_->Timing();
  WarnOfTiming();
  // Missed reports are skipped.
  next_report_ += ReportInterval() * ((Now() - next_report_) / ReportInterval() + 1);
  if (!meter_.Started() && !options_.WantsJson()) {
    return;
  }
  if (options_.WantsJson()) {
    Emit(StatusJson(options_, plan_, Progress(), "progress"));
    if (std::ferror(Results()) != 0) {
      Stop("Stopped: nobody reads the output");
    }
  } else if (terminal_) {
    DrawProgress();
  } else if (!options_.quiet) {
    Print(stderr, "{}\n", ProgressLine(plan_, Progress(), 200));
  }
}

Status PlaySession::Progress() const {
  Status status = meter_.Total();
  status.timing = timing_;
  status.input_ppm = playing_->FollowedPpm();
  status.outputs = further_.Status();
  status.faults = playing_->Faults();
  if (stream_faults_) {
    status.stream_faults = stream_faults_->Counts();
  }
  status.twin = TwinProgress();
  return status;
}

std::optional<TwinStatus> PlaySession::TwinProgress() const {
  const auto state = playing_->Twin();
  if (!state || !twin_) {
    return std::nullopt;
  }
  return TwinStatus{FormatTarget(twin_->options.to), options_.twin_skew.value_or(0ns),
                    twin_->plan.schedule.Seed, state->counters, state->timing};
}

void PlaySession::DrawProgress() {
  Print(stderr, "\r\x1b[K{}", ProgressLine(plan_, Progress(), terminal_->Columns() - 1));
}

void PlaySession::ClearProgress() {
  if (terminal_) {
    Print(stderr, "\r\x1b[K");
  }
}

void PlaySession::SayAt(const std::string& line, nanoseconds time) {
  if (options_.WantsJson() || options_.quiet) {
    return;
  }
  ClearProgress();
  Print(stderr, "{}  {}\n", FormatMoment(time), line);
  if (terminal_) {
    DrawProgress();
  }
}

void PlaySession::Emit(const std::string& json) {
  Print(Results(), "{}\n", json);
  std::fflush(Results());
}

// For people, and as an event.
void PlaySession::Warn(const std::string& text) {
  ClearProgress();
  Print(stderr, "ipplay: {}\n", text);
  if (options_.WantsJson()) {
    Emit(EventJson("warning", Now(), text));
  }
}

void PlaySession::WarnOfInput() {
  if (feeder_.ReadError() != 0 && !warned_of_read_) {
    warned_of_read_ = true;
    Warn(fmt::format("reading INPUT failed: {}; playing what has been read so far",
                     ReadFailure(feeder_.ReadError())));
  }
}

void PlaySession::WarnOfTiming() {
  if (!timing_ || meter_.Paused()) {
    return;
  }
  for (const std::string& warning : timing_watch_.Warnings(*timing_)) {
    Warn(warning);
  }
}

void PlaySession::JudgeTiming(const IpPlayoutTiming& timing) {
  for (const std::string& breach : timing_watch_.Breaches(timing)) {
    Condemn(breach);
  }
}

// What a pipe left out is known at its end; a file's damage was noted at the start.
void PlaySession::JudgeInput() {
  const Damage damage = feeder_.Damaged();
  if (damage.places > 0 && damage != plan_.damage) {
    Print(stderr, "ipplay: note: {}\n", DamageText(damage));
  }
  for (const std::string& note : feeder_.InputNotes()) {
    if (std::find(plan_.notes.begin(), plan_.notes.end(), note) == plan_.notes.end()) {
      Print(stderr, "ipplay: note: {}\n", note);
    }
  }
  constexpr nanoseconds kWorthANote = std::chrono::milliseconds(10);
  if (feeder_.LongestWait() >= kWorthANote) {
    Print(stderr,
          "ipplay: note: the stream is faster than the bit rate ordered at times: packets left up "
          "to {} late\n",
          FormatDuration(feeder_.LongestWait()));
  }
  if (damage.places > 0 && options_.no_damage) {
    Condemn("--no-damage: INPUT is damaged");
  }
}

std::optional<std::uint64_t> PlaySession::HeldBack(const PlayoutStatistics& counters) const {
  if (plan_.by_schedule) {
    return playing_->Faults().HeldFrames / plan_.copies;
  }
  return HeldBackAtEnd(plan_.settings.errors, counters, faults_.Any());
}

std::uint64_t PlaySession::CountUnsent() const {
  SentInBatches run{.batch = plan_.rates.batch, .frame_bytes = plan_.sizes.frame_bytes};
  const PlayoutStatistics counters = playing_->Counters();
  if (failed_) {
    run.frames = 0;  // the batch that failed was a full one; how many are lost with it is not known
  } else if (const auto held_back = HeldBack(counters)) {
    run.frames = (counters.DatagramsSent - counters.LostPackets - *held_back) * plan_.copies;
  }
  return UnsentFrames(short_sends_.Read(), run);
}

// The run itself did what it could, and still is no success.
void PlaySession::Condemn(const std::string& why) {
  failed_ = true;
  outcome_ = "Failed";
  Print(stderr, "ipplay: {}\n", why);
}

void PlaySession::Fail(const std::string& why) {
  const PlayoutStatistics& counters = meter_.Total().counters;
  Condemn(fmt::format("{}; sent until then: {} with {}", why,
                      FormatCount(counters.DatagramsSent, "datagram"),
                      FormatBytes(counters.TSBytesSent)));
}

void PlaySession::ReportFailure() {
  if (feeder_.ReadError() != 0) {
    Fail("INPUT could not be read to its end");
  } else if (failed_ && plan_.schedule.To == IPPLAYOUT_TO_FILE) {
    Fail(failure_);
  } else if (failed_) {
    Fail(fmt::format("a frame could not be sent, at least {} lost; {}is the adapter still up?{}",
                     FormatCount(std::max<std::uint64_t>(unsent_, 1)),
                     failure_.empty() ? "" : failure_ + "; ",
                     plan_.by_schedule && !options_.wait_link && !options_.twin
                         ? " --wait-link goes on when its link is back"
                         : ""));
  } else if (unsent_ > 0 && options_.wait_link) {
    Print(stderr, "ipplay: note: the adapter did not take {}; they are lost\n",
          FormatCount(unsent_, "frame"));
  } else if (unsent_ > 0) {
    Condemn(fmt::format("{}{} at the end could not be sent; is the adapter still up?",
                        HeldBack(meter_.Total().counters) ? "" : "at least ",
                        FormatCount(unsent_, "frame")));
  }
}

void PlaySession::ReportOutputFailures(const std::vector<OutputStatus>& outputs) {
  for (const OutputStatus& output : outputs) {
    if (output.failure) {
      Condemn(fmt::format("{}: {}", output.target, *output.failure));
    }
  }
}

ExitStatus PlaySession::Conclude() {
  ClearProgress();
  terminal_.reset();
  WarnOfInput();
  if (feeder_.Padding() > 0) {
    Print(stderr, "ipplay: padded with {}: data is sent in units of 4 bytes\n",
          FormatCount(feeder_.Padding(), "zero byte"));
  }
  ReportFailure();
  JudgeInput();
  WarnOfFaultsNotDone();
  if (timing_) {
    WarnOfTiming();
    JudgeTiming(*timing_);
  }
  Status status = Progress();
  if (status.twin) {
    JudgeTiming(*status.twin->timing);
  }
  status.held_back = HeldBack(status.counters);
  ReportOutputFailures(status.outputs);
  if (!options_.raw) {
    status.damage = feeder_.Damaged();
  }
  if (status.share && outcome_ == "Played") {
    // The bytes of a large file were taken from its size, damage included.
    status.share = 1;
    status.remaining = 0ns;
  }
  if (options_.WantsJson()) {
    Print(Results(), "{}\n", StatusJson(options_, plan_, status, "summary", outcome_));
  } else {
    Print(Results(), "{}", Summary(options_, plan_, status, outcome_));
  }
  std::fflush(Results());
  return failed_ ? ExitStatus::kFailed : ExitStatus::kPlayed;
}

}  // namespace ipplay
