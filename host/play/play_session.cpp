// SPDX-License-Identifier: MIT
#include "host/play/play_session.h"

#include <fmt/format.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "host/base/capabilities.h"
#include "host/base/library_output.h"
#include "host/base/units.h"
#include "host/play/report.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {
namespace {

using std::chrono::nanoseconds;
using namespace std::chrono_literals;

constexpr const char* kKeys =
    "keys: space pause, l lose, s send late, i bad IP checksum, u bad UDP checksum, q stop, ? help";

sigset_t StopSignals() {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    ::sigaddset(&set, signal);
  }
  return set;
}

// Signals are read as events. They are blocked before any thread starts, so that none gets them.
FileDescriptor CatchSignals() {
  sigset_t set = StopSignals();
  ::sigaddset(&set, SIGCONT);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  return FileDescriptor(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
}

// From here on a signal ends the process at once. The hang-up that comes with the end of a terminal
// may be the second one that this end makes, and is no wish of the user's.
void LetSignalsKill() {
  sigset_t set = StopSignals();
  sigdelset(&set, SIGHUP);
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

Feeder::Sink LibrarySink() {
  return {.write = [](const void* data, std::uint16_t units) { return IPWrite(data, units); },
          .terminate = [] { IPWriteTerminate(); }};
}

std::optional<Restamper> MakeRestamper(const PlayPlan& plan, PacketFormat format) {
  if (!plan.restamp) {
    return std::nullopt;
  }
  return Restamper(format, *plan.restamp);
}

std::string ReadFailure(int error) {
  return error == ENODATA ? "it has become shorter" : std::strerror(error);
}

PlayoutStatistics Counters() {
  PlayoutStatistics counters{};
  GetPlayoutStatistics(&counters);
  return counters;
}

// Without the two lines that tell of its threads.
bool StartLibrary(bool economy) {
  constexpr int kNice = 10;
  // The library takes it for what --economy asks for. A value that is there already is no less.
  if (economy && ::getpriority(PRIO_PROCESS, 0) < kNice) {
    ::setpriority(PRIO_PROCESS, 0, kNice);
  }
  const LibrarySilence silence(LibrarySilence::Of::kOutput);
  // The library opens the adapter and gives its threads their class. Nothing is opened later.
  KeepCapabilities({CAP_NET_RAW, CAP_SYS_NICE});
  const bool started = IPStart() == 0;
  KeepCapabilities({});
  return started;
}

}  // namespace

PlaySession::PlaySession(const PlayOptions& options, const PlayPlan& plan,
                         std::unique_ptr<RoundReader> reader, int stop_reading)
    : options_(options),
      plan_(plan),
      stop_reading_(stop_reading),
      completed_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      signals_(CatchSignals()),
      time_line_(options.time_line),
      meter_(plan),
      feeder_([&] {
        const PacketFormat format = reader->Format();
        return Feeder(std::move(reader), MakeRestamper(plan, format), plan.rounds, LibrarySink());
      }()) {}

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
  const intptr_t event = completed_.Get();
  RegisterForIPPlayoutCompletion(&event);
  Apply(plan_.settings);
  if (!options_.json && !options_.quiet) {
    terminal_ = Terminal::Open();
  }
  start_ = Clock::now();
  next_report_ = terminal_ ? 0s : ReportInterval();
  if (!StartLibrary(options_.economy)) {
    IPStop();
    Print(stderr, "ipplay: the playout cannot start; is the adapter up?\n");
    return false;
  }
  running_ = true;
  feeder_.Start();
  if (terminal_) {
    Print(stderr, "{}\n", kKeys);
  }
  return true;
}

void PlaySession::Loop() {
  while (running_) {
    WaitForSomething();
    if (!running_) {
      return;
    }
    ReadCounters(Now());
    while (const auto action = time_line_.TakeDue(Now())) {
      Do(*action, "--at");
    }
    if (running_) {
      ReportWhenDue();
    }
  }
}

nanoseconds PlaySession::ReportInterval() const {
  if (options_.json) {
    return 1s;
  }
  return terminal_ ? nanoseconds(250ms) : nanoseconds(5s);
}

// The next point in time at which there is something to do. The counters are looked at more often
// at first, since the measured bit rate starts there: until the first datagram has left, in a
// file's case, which is a matter of moments, often enough for a short one's rate to be right.
nanoseconds PlaySession::NextWake() const {
  nanoseconds wake = next_report_;
  if (const auto time = time_line_.NextTime()) {
    wake = std::min(wake, *time);
  }
  if (!meter_.Started()) {
    wake = std::min(wake, Now() + (plan_.round_bytes ? nanoseconds(200us) : nanoseconds(2ms)));
  } else if (!meter_.UnderWay()) {
    wake = std::min(wake, Now() + 20ms);
  }
  return wake;
}

void PlaySession::WaitForSomething() {
  const nanoseconds wait = std::max(NextWake() - Now(), nanoseconds(0));
  const timespec timeout{.tv_sec = static_cast<time_t>(wait / 1s),
                         .tv_nsec = static_cast<long>((wait % 1s).count())};
  std::array<pollfd, 3> waits{{{completed_.Get(), POLLIN, 0},
                               {signals_.Get(), POLLIN, 0},
                               {terminal_ ? terminal_->Fd() : -1, POLLIN, 0}}};
  if (::ppoll(waits.data(), waits.size(), &timeout, nullptr) <= 0) {
    return;
  }
  if (waits[0].revents != 0) {
    // Nothing is written; the call tells an end of the data from a failure.
    const std::uint32_t nothing = 0;
    failed_ = IPWrite(&nothing, 0) == IPPLAYOUT_FAILED;
    return Finish(!failed_);
  }
  if (waits[1].revents != 0) {
    TakeSignals();
  }
  if ((waits[2].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
    return Stop("Stopped, since the terminal is gone");
  }
  if (waits[2].revents != 0) {
    TakeKeys();
  }
}

void PlaySession::TakeSignals() {
  signalfd_siginfo info{};
  std::optional<std::uint32_t> stop;
  // Those that came together are one wish.
  while (::read(signals_.Get(), &info, sizeof info) == sizeof info) {
    if (info.ssi_signo != SIGCONT) {
      stop = info.ssi_signo;
    }
  }
  if (stop) {
    return Stop(*stop == SIGINT ? "Stopped by Ctrl-C" : "Stopped by a signal");
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
  switch (key) {
    case ' ':
      return Do({meter_.Paused() ? ActionKind::kResume : ActionKind::kPause, 0s}, "key");
    case 'l':
      return Do({ActionKind::kLose, 0s}, "key");
    case 's':
      return Do({ActionKind::kDelay, 0s}, "key");
    case 'i':
      return Do({ActionKind::kBadIpChecksum, 0s}, "key");
    case 'u':
      return Do({ActionKind::kBadUdpChecksum, 0s}, "key");
    case 'q':
      return Do({ActionKind::kStop, 0s}, "key");
    case '?':
    case 'h':
      return Say(kKeys);
    default:
      return;
  }
}

void PlaySession::Do(const Action& action, const std::string& by) {
  switch (action.kind) {
    case ActionKind::kLose:
      GeneratePacketLoss();
      return Say(by + ": the next datagram is lost");
    case ActionKind::kDelay:
      if (!options_.to.rtp) {
        return Say(by + ": only RTP datagrams can be sent late");
      }
      GenerateSequenceError();
      return Say(by + ": the next datagram is sent late");
    case ActionKind::kBadIpChecksum:
      if (options_.to.address.is_v6) {
        return Say(by + ": IPv6 has no header checksum");
      }
      GenerateIPChecksumError();
      return Say(by + ": the next datagram has a bad IP checksum");
    case ActionKind::kBadUdpChecksum:
      GenerateUDPChecksumError();
      return Say(by + ": the next datagram has a bad UDP checksum");
    case ActionKind::kPause:
      Pause(true);
      if (action.length > 0s) {
        time_line_.Add({Now() + action.length, {ActionKind::kResume, 0s}});
      }
      return;
    case ActionKind::kResume:
      return Pause(false);
    case ActionKind::kStop:
      return Stop(fmt::format("Stopped by {}", by));
  }
}

void PlaySession::Pause(bool on) {
  IPPause(on ? 1 : 0);
  meter_.SetPaused(on);
  Say(on ? "paused" : "playing");
}

// The terminal goes back and signals get their usual meaning first: what follows may take a second,
// and a second Ctrl-C ends the process at once.
void PlaySession::Stop(const std::string& outcome) {
  if (!running_) {
    return;
  }
  outcome_ = outcome;
  ClearProgress();
  terminal_.reset();
  LetSignalsKill();
  Finish(false);
}

// The playout ends now, not when all of its threads are gone; its last datagram is counted then.
void PlaySession::Finish(bool complete) {
  ReadCounters(Now());
  running_ = false;
  feeder_.Stop();
  const std::uint64_t one = 1;
  if (::write(stop_reading_, &one, sizeof one) < 0) {
    // The counter of the event is full, so it is signalled already.
  }
  IPStop();
  meter_.End(Counters(), complete);
}

void PlaySession::ReadCounters(nanoseconds now) {
  meter_.Read(Counters(), now);
}

void PlaySession::ReportWhenDue() {
  WarnOfInput();
  if (Now() < next_report_) {
    return;
  }
  // Missed reports are not made up for.
  next_report_ += ReportInterval() * ((Now() - next_report_) / ReportInterval() + 1);
  if (!meter_.Started() && !options_.json) {
    return;
  }
  if (options_.json) {
    Print(Results(), "{}\n", StatusJson(options_, plan_, meter_.Total(), "progress"));
    std::fflush(Results());
    if (std::ferror(Results()) != 0) {
      Stop("Stopped, since nobody reads the output");
    }
  } else if (terminal_) {
    DrawProgress();
  } else if (!options_.quiet) {
    Print(stderr, "{}\n", ProgressLine(plan_, meter_.Total(), 200));
  }
}

void PlaySession::DrawProgress() {
  Print(stderr, "\r\x1b[K{}", ProgressLine(plan_, meter_.Total(), terminal_->Columns() - 1));
}

void PlaySession::ClearProgress() {
  if (terminal_) {
    Print(stderr, "\r\x1b[K");
  }
}

void PlaySession::Say(const std::string& line) {
  if (options_.json || options_.quiet) {
    return;
  }
  ClearProgress();
  Print(stderr, "{}  {}\n", FormatClock(meter_.Total().elapsed), line);
  if (terminal_) {
    DrawProgress();
  }
}

void PlaySession::WarnOfInput() {
  if (feeder_.ReadError() != 0 && !warned_of_read_) {
    warned_of_read_ = true;
    ClearProgress();
    Print(stderr, "ipplay: INPUT cannot be read on: {}; what was read before is played\n",
          ReadFailure(feeder_.ReadError()));
  }
  const auto lost = feeder_.SyncLost();
  if (!lost || warned_of_sync_) {
    return;
  }
  warned_of_sync_ = true;
  ClearProgress();
  Print(stderr, "ipplay: INPUT lost sync at offset {}; it is played as it comes\n", *lost);
}

void PlaySession::Fail(const std::string& why) {
  outcome_ = "Failed";
  const PlayoutStatistics& counters = meter_.Total().counters;
  Print(stderr, "ipplay: {}; {} datagrams with {} were sent before\n", why,
        FormatCount(counters.DatagramsSent), FormatBytes(counters.TSBytesSent));
}

ExitStatus PlaySession::Conclude() {
  ClearProgress();
  terminal_.reset();
  WarnOfInput();
  if (feeder_.Padding() > 0) {
    Print(stderr, "ipplay: {} zero bytes added at the end, since bytes are played by fours\n",
          feeder_.Padding());
  }
  if (feeder_.ReadError() != 0) {
    failed_ = true;
    Fail("INPUT could not be read to its end");
  } else if (failed_) {
    Fail("a frame could not be sent; is the adapter still up?");
  }
  const Status status = meter_.Total();
  if (options_.json) {
    Print(Results(), "{}\n", StatusJson(options_, plan_, status, "summary", outcome_));
  } else {
    Print(Results(), "{}", Summary(options_, plan_, status, outcome_));
  }
  std::fflush(Results());
  return failed_ ? ExitStatus::kFailed : ExitStatus::kPlayed;
}

}  // namespace ipplay
