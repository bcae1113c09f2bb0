// SPDX-License-Identifier: MIT
// One playout, from its start to its summary.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/base/event.h"
#include "host/base/line_server.h"
#include "host/base/result.h"
#include "host/base/signal_event.h"
#include "host/base/terminal.h"
#include "host/library/short_sends.h"
#include "host/play/changes.h"
#include "host/play/control.h"
#include "host/play/feeder.h"
#include "host/play/further_outputs.h"
#include "host/play/ordered_faults.h"
#include "host/play/plan_twin.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"
#include "host/play/playing.h"
#include "host/play/sap.h"
#include "host/play/status.h"
#include "host/play/time_line.h"
#include "host/play/timing_watch.h"

namespace ipplay {

// Runs on the thread that calls Run(), beside the feeder's thread. Acts on keys, signals and the
// time line, and shows progress.
class PlaySession {
 public:
  // `stop_reading` ends a read of the input. Programs give orders on `control`, if not null.
  PlaySession(const PlayOptions& options, const PlayPlan& plan, const std::optional<TwinPath>& twin,
              std::unique_ptr<RoundReader> reader, std::vector<Output> further,
              SapAnnouncers announcers, const Event& stop_reading, LineServer* control);
  ~PlaySession();
  PlaySession(const PlaySession&) = delete;
  PlaySession& operator=(const PlaySession&) = delete;

  ExitStatus Run();

 private:
  using Clock = std::chrono::steady_clock;

  bool Start();
  std::optional<std::string> StartOutputs();
  void Loop();
  void Announce();
  void WaitForSomething();
  std::chrono::nanoseconds NextWake() const;
  std::chrono::nanoseconds ReportInterval() const;
  std::chrono::nanoseconds Now() const { return Clock::now() - start_; }

  void TakeContinue();
  void TakeKeys();
  void PressKey(char key);
  void TakeControl();
  std::string Control(std::string_view line);
  std::string ChangeRun(const ControlOrder& order, const ChangeRequest& request);
  std::chrono::nanoseconds CommonTime() const;
  std::optional<std::string> Obey(const Action& action, const std::string& by);
  void Do(const Action& action, const std::string& by);
  std::optional<std::string> Order(const Action& action, std::chrono::nanoseconds at,
                                   const std::string& by);
  void OrderAhead();
  void ReportDoneFaults();
  void WarnOfFaultsNotDone();
  void Pause(bool on);
  void Stop(const std::string& outcome);
  void Finish(bool complete);

  void ReadCounters(std::chrono::nanoseconds now);
  void ReportWhenDue();
  void Say(const std::string& line) { SayAt(line, Now()); }
  void SayAt(const std::string& line, std::chrono::nanoseconds time);
  void Emit(const std::string& json);
  void Warn(const std::string& text);
  Status Progress() const;
  std::optional<TwinStatus> TwinProgress() const;
  void DrawProgress();
  void ClearProgress();
  void WarnOfInput();
  void WarnOfTiming();
  void JudgeTiming(const IpPlayoutTiming& timing);
  std::optional<std::uint64_t> HeldBack(const PlayoutStatistics& counters) const;
  void JudgeInput();
  std::uint64_t CountUnsent() const;
  void Condemn(const std::string& why);
  void Fail(const std::string& why);
  void ReportFailure();
  void ReportOutputFailures(const std::vector<OutputStatus>& outputs);
  ExitStatus Conclude();

  const PlayOptions& options_;
  const PlayPlan& plan_;
  const std::optional<TwinPath>& twin_;
  SapAnnouncers announcers_;  // until the end of the run
  const Event& stop_reading_;
  LineServer* const control_;
  SignalEvent continued_{SIGCONT};
  std::unique_ptr<Terminal> terminal_;
  TimeLine time_line_;
  StatusMeter meter_;
  std::unique_ptr<StreamFaults> stream_faults_;  // null for none
  std::unique_ptr<Playing> playing_;
  OrderedFaults faults_;
  FurtherOutputs further_;
  Changes changes_;
  Feeder feeder_;
  Clock::time_point start_;
  std::chrono::nanoseconds next_report_{0};
  bool running_ = false;
  bool failed_ = false;
  bool warned_of_read_ = false;
  ShortSends short_sends_;
  std::string failure_;  // why the run failed, where the library says
  std::optional<IpPlayoutTiming> timing_;
  TimingWatch timing_watch_{options_};
  std::uint64_t unsent_ = 0;  // frames at the end of the run that the adapter did not take
  std::string outcome_ = "Played";
};

}  // namespace ipplay
