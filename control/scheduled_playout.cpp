// SPDX-License-Identifier: MIT
#include "control/scheduled_playout.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <utility>

#include "control/playout_rules.h"
#include "control/value_checks.h"
#include "platform/clock.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

Failure NotConfigured() {
  return {IPPLAYOUT_BAD_STATE, "the playout has no settings yet; call IpPlayoutConfigure first"};
}

Failure NotRunning() {
  return {IPPLAYOUT_BAD_STATE, "the playout does not run; call IpPlayoutStart first"};
}

Failure Over() {
  return {IPPLAYOUT_ENDED, "the playout has ended or was stopped"};
}

Failure NoMemory() {
  return {IPPLAYOUT_NO_RESOURCES, "memory has run out"};
}

Failure Closed() {
  return {IPPLAYOUT_BAD_PLAYOUT, "the playout is not open"};
}

Failure EndDeclared() {
  return {IPPLAYOUT_BAD_STATE, "the end of the data was declared; call IpPlayoutStop before more"};
}

Failure NoLedger() {
  return {IPPLAYOUT_BAD_STATE, "no ledger is kept; set LedgerFrames before the start"};
}

Failure NeverStarted() {
  return {IPPLAYOUT_BAD_STATE, "the playout was not started yet"};
}

}  // namespace

ScheduledPlayout::~ScheduledPlayout() {
  try {
    Close();
  } catch (const std::exception&) {
    // There was no memory for the sentence that says what went wrong.
  }
}

Failure ScheduledPlayout::Configure(const IpPlayoutSettings& settings) {
  if (Failure failure = CheckSettings(settings)) {
    return failure;
  }
  const platform::MutexLock lock(control_mutex_);
  if (state_ == State::kClosed) {
    return Closed();
  }
  if (state_ != State::kIdle) {
    return {IPPLAYOUT_BAD_STATE, "the playout runs; call IpPlayoutStop before IpPlayoutConfigure"};
  }
  settings_ = settings;
  ledger_path_.clear();
  return RenewInput();
}

Failure ScheduledPlayout::CheckReady(const char* when_it_runs) const {
  if (state_ == State::kClosed) {
    return Closed();
  }
  if (!settings_) {
    return NotConfigured();
  }
  return state_ == State::kIdle ? Failure() : Failure(IPPLAYOUT_BAD_STATE, when_it_runs);
}

Failure ScheduledPlayout::WriteLedger(const char* path) {
  const std::string file = path == nullptr ? "" : path;
  const platform::MutexLock lock(control_mutex_);
  if (Failure failure =
          CheckReady("the playout runs; call IpPlayoutStop before IpPlayoutWriteLedger")) {
    return failure;
  }
  if (settings_->LedgerFrames == 0 && !file.empty()) {
    return NoLedger();
  }
  ledger_path_ = file;
  return {};
}

// Without memory for an input the playout has no settings any more.
Failure ScheduledPlayout::RenewInput() {
  std::shared_ptr<Input> input;
  try {
    input = std::make_shared<Input>(*settings_);
  } catch (const std::exception&) {
    // As when the ring itself could not be had.
  }
  if (input == nullptr || input->ring.GetCapacity() == 0) {
    settings_.reset();
    ExchangeInput(nullptr);
    return NoMemory();
  }
  input->ring.SetListener(this);
  input->ring.SetStartThreshold(settings_->StartBytes);
  ExchangeInput(std::move(input));
  return {};
}

// Whoever still writes to the input before is released.
void ScheduledPlayout::ExchangeInput(std::shared_ptr<Input> input) {
  {
    const platform::MutexLock lock(shared_mutex_);
    input_.swap(input);
  }
  if (input != nullptr) {
    input->ring.EndRun();
  }
}

std::shared_ptr<ScheduledPlayout::Input> ScheduledPlayout::ShareInput() {
  const platform::MutexLock lock(shared_mutex_);
  return input_;
}

std::shared_ptr<ScheduledRun> ScheduledPlayout::ShareRun() {
  const platform::MutexLock lock(shared_mutex_);
  return run_;
}

Failure ScheduledPlayout::Mark(std::uint64_t offset, std::int64_t time_ns) {
  const std::shared_ptr<Input> input = ShareInput();
  if (input == nullptr) {
    return NotConfigured();
  }
  if (input->ordered.BitRate > 0) {
    return {IPPLAYOUT_BAD_STATE, "the playout has a BitRate; marks need a BitRate of 0"};
  }
  if (time_ns < 0 || nanoseconds(time_ns) > TimeMarks::kLatest) {
    return {IPPLAYOUT_BAD_VALUE, "time_ns is " + std::to_string(time_ns) + "; it can be 0 to " +
                                     std::to_string(TimeMarks::kLatest.count())};
  }
  if (offset < input->written.load()) {
    return {IPPLAYOUT_BAD_VALUE, "the mark is at offset " + std::to_string(offset) +
                                     "; it is to lie at or behind what was written, " +
                                     std::to_string(input->written.load())};
  }
  switch (input->marks.Add({offset, nanoseconds(time_ns)})) {
    case TimeMarks::Added::kNotAhead:
      return {IPPLAYOUT_BAD_VALUE, "the mark is at offset " + std::to_string(offset) +
                                       " and time " + std::to_string(time_ns) +
                                       " ns; marks go up in offset and not down in time"};
    case TimeMarks::Added::kFull:
      return {IPPLAYOUT_NO_RESOURCES, "65536 marks wait already; write what leads to them first"};
    default:
      RequestFrames();
      return {};
  }
}

// ---- Start ----

Failure ScheduledPlayout::Prepare() {
  const platform::MutexLock lock(control_mutex_);
  if (Failure failure = CheckReady("the playout runs already; call IpPlayoutStop first")) {
    return failure;
  }
  if (Failure failure = MakeEndEvent()) {
    return failure;
  }
  std::shared_ptr<Input> input = ShareInput();
  ScheduledRun::Owner& owner = *this;
  auto run = std::make_shared<ScheduledRun>(
      *settings_, ScheduledRun::Sources{input->ring, input->marks, input->orders, input->changes},
      surroundings_, owner, ledger_path_);
  if (Failure failure = run->Prepare()) {
    return failure;
  }
  next_ending_ = std::make_shared<Ending>();
  next_run_ = std::move(run);
  next_input_ = std::move(input);
  state_ = State::kPreparing;
  return {};
}

Failure ScheduledPlayout::MakeEndEvent() {
  const platform::MutexLock lock(end_mutex_);
  if (!end_event_) {
    end_event_ = platform::OwnedHostEvent::Create();
  }
  return end_event_
             ? Failure()
             : Failure(IPPLAYOUT_NO_RESOURCES,
                       "descriptors have run out; raise the limit of open files (ulimit -n)");
}

void ScheduledPlayout::Launched() {
  std::shared_ptr<ScheduledRun> before;  // goes when nothing is held
  const platform::MutexLock lock(control_mutex_);
  {
    const platform::MutexLock end_lock(end_mutex_);
    end_event_->Clear();
    ending_ = std::move(next_ending_);
  }
  {
    const platform::MutexLock shared_lock(shared_mutex_);
    before = std::exchange(run_, std::move(next_run_));
    run_input_ = std::move(next_input_);
    takes_requests_ = true;
    run_->Launch();
  }
  state_ = State::kRunning;
  prepared_.NotifyAll();
}

// The playout is as it was: what was written and marked for it is kept.
void ScheduledPlayout::Abandon() {
  const platform::MutexLock lock(control_mutex_);
  next_run_->Withdraw();
  next_run_.reset();
  next_input_.reset();
  next_ending_.reset();
  state_ = State::kIdle;
  prepared_.NotifyAll();
}

// ---- Data ----

Failure ScheduledPlayout::Write(const std::uint8_t* data, std::size_t bytes) {
  const std::shared_ptr<Input> input = ShareInput();
  if (input == nullptr) {
    return NotConfigured();
  }
  if (input->ring.HasNoReader()) {
    return Over();
  }
  if (input->ring.IsTerminated() != 0) {
    return EndDeclared();
  }
  // What there is room for at once, so that the ring gets full and reading begins whatever is to be
  // written before; then in pieces, for which room is found sooner than for the whole.
  const std::size_t most = input->ring.GetCapacity() / 4;
  while (bytes > 0) {
    const std::size_t room = input->ring.Room();
    const std::size_t piece = std::min({bytes, most, room == 0 ? most : room});
    if (!input->ring.Write(data, static_cast<std::uint32_t>(piece))) {
      return Over();
    }
    input->written.fetch_add(piece);
    data += piece;
    bytes -= piece;
  }
  return {};
}

Failure ScheduledPlayout::TryWrite(const std::uint8_t* data, std::size_t bytes,
                                   std::size_t& taken) {
  taken = 0;
  const std::shared_ptr<Input> input = ShareInput();
  if (input == nullptr) {
    return NotConfigured();
  }
  if (input->ring.HasNoReader()) {
    return Over();
  }
  if (input->ring.IsTerminated() != 0) {
    return EndDeclared();
  }
  const std::size_t piece = std::min<std::size_t>(bytes, input->ring.Room());
  if (piece > 0 && !input->ring.Write(data, static_cast<std::uint32_t>(piece))) {
    return Over();
  }
  input->written.fetch_add(piece);
  taken = piece;
  return {};
}

Failure ScheduledPlayout::End() {
  const std::shared_ptr<Input> input = ShareInput();
  if (input == nullptr) {
    return NotConfigured();
  }
  input->marks.Finish();
  input->ring.Terminate();
  return {};
}

void ScheduledPlayout::OnReadable() {
  RequestFrames();
}

void ScheduledPlayout::RequestFrames() {
  const platform::MutexLock lock(shared_mutex_);
  if (takes_requests_) {
    run_->RequestFrames();
  }
}

// ---- End ----

// By the builder's thread, or by whoever stops the run. Asks for no memory.
void ScheduledPlayout::OnRunEnd(int error) {
  std::shared_ptr<Input> input;
  std::shared_ptr<ScheduledRun> run;
  {
    const platform::MutexLock lock(shared_mutex_);
    takes_requests_ = false;
    input = run_input_;
    run = run_;
  }
  input->ring.EndRun();
  const platform::MutexLock lock(end_mutex_);
  if (ending_->is_over) {
    return;
  }
  *ending_ = {true, error, run->RanOutOfMemory()};
  platform::SignalHostEvent(end_event_->Handle());
  ended_.NotifyAll();
}

Failure ScheduledPlayout::Wait(std::optional<nanoseconds> timeout) {
  const nanoseconds deadline =
      timeout ? platform::MonotonicNow() + std::min(*timeout, nanoseconds(INT64_MAX / 2))
              : nanoseconds::zero();
  const platform::MutexLock lock(end_mutex_);
  const std::shared_ptr<const Ending> ending = ending_;
  if (ending == nullptr) {
    return NeverStarted();
  }
  while (!ending->is_over) {
    if (!timeout) {
      ended_.Wait(end_mutex_);
    } else if (!ended_.WaitUntil(end_mutex_, deadline) && !ending->is_over) {
      return {IPPLAYOUT_NOT_YET, "the playout goes on"};
    }
  }
  if (ending->error == ECANCELED) {
    return {IPPLAYOUT_ENDED, "the playout was stopped"};
  }
  if (ending->error != 0) {
    return {IPPLAYOUT_BAD_DESTINATION,
            std::string("the destination refused a frame: ") + std::strerror(ending->error)};
  }
  return ending->ran_out_of_memory ? NoMemory() : Failure();
}

platform::EventHandle ScheduledPlayout::EndEvent() {
  const platform::MutexLock lock(end_mutex_);
  if (!end_event_) {
    end_event_ = platform::OwnedHostEvent::Create();
  }
  return end_event_ ? end_event_->Handle() : platform::kNullEvent;
}

Failure ScheduledPlayout::Stop() {
  const platform::MutexLock lock(control_mutex_);
  Failure failure = EndRun();
  if (settings_) {
    const Failure renewed = RenewInput();
    failure = failure ? failure : renewed;
  }
  return failure;
}

Failure ScheduledPlayout::Close() {
  const platform::MutexLock lock(control_mutex_);
  Failure failure = EndRun();
  state_ = State::kClosed;
  settings_.reset();
  ExchangeInput(nullptr);
  return failure;
}

// Where one is under way or being started.
Failure ScheduledPlayout::EndRun() {
  while (state_ == State::kPreparing) {
    prepared_.Wait(control_mutex_);
  }
  if (state_ != State::kRunning) {
    return {};
  }
  {
    const platform::MutexLock shared_lock(shared_mutex_);
    takes_requests_ = false;
  }
  state_ = State::kIdle;
  Failure failure = run_->Withdraw();
  OnRunEnd(ECANCELED);
  return failure;
}

// ---- While it runs ----

Failure ScheduledPlayout::Pause(bool on) {
  const platform::MutexLock lock(shared_mutex_);
  if (!takes_requests_) {
    return NotRunning();
  }
  run_->Pause(on);
  return {};
}

Failure ScheduledPlayout::Order(const IpPlayoutOrder& order) {
  const std::shared_ptr<Input> input = ShareInput();
  if (input == nullptr) {
    return NotConfigured();
  }
  if (input->ring.HasNoReader()) {
    return Over();
  }
  if (Failure failure = input->orders_of.Check(order)) {
    return failure;
  }
  if (!input->orders.Add(order)) {
    return {IPPLAYOUT_NO_RESOURCES,
            std::to_string(FaultOrders::kMost) +
                " orders wait already; IpPlayoutGetFaults says when there are fewer"};
  }
  return {};
}

Failure ScheduledPlayout::Change(const IpPlayoutSettings& settings, double speed,
                                 std::int64_t at_ns) {
  constexpr double kMostSpeed = 1000;
  const std::shared_ptr<Input> input = ShareInput();
  if (input == nullptr) {
    return NotConfigured();
  }
  if (input->ring.HasNoReader()) {
    return Over();
  }
  IpPlayoutSettings changed = input->ordered;
  changed.Size = settings.Size;
  changed.Errors = settings.Errors;
  changed.Faults = settings.Faults;
  changed.Parametric = settings.Parametric;
  if (Failure failure = CheckSettings(changed)) {
    return failure;
  }
  if (!(speed >= 1 / kMostSpeed && speed <= kMostSpeed)) {
    return Refuse("speed", Text(speed), "0.001 to 1000");
  }
  if (!input->changes.Add({at_ns, speed, changed.Faults, changed.Errors, changed.Parametric})) {
    return {IPPLAYOUT_NO_RESOURCES, std::to_string(RunChanges::kMost) +
                                        " changes wait already; give more once some of them hold"};
  }
  return {};
}

// Of the last run, too.
Failure ScheduledPlayout::ReadDone(IpPlayoutDone* out, std::size_t room, std::size_t& taken) {
  taken = 0;
  std::shared_ptr<Input> input;
  {
    const platform::MutexLock lock(shared_mutex_);
    input = run_input_;
  }
  if (input == nullptr) {
    return NeverStarted();
  }
  taken = input->orders.TakeDone({out, room});
  return {};
}

Failure ScheduledPlayout::GetStatistics(PlayoutStatistics& out) {
  const std::shared_ptr<ScheduledRun> run = ShareRun();
  out = run == nullptr ? PlayoutStatistics{} : run->Statistics();
  return run == nullptr ? NeverStarted() : Failure();
}

Failure ScheduledPlayout::GetTiming(IpPlayoutTiming& out) {
  const std::shared_ptr<ScheduledRun> run = ShareRun();
  if (run == nullptr) {
    out = {};
    return NeverStarted();
  }
  run->ReadTiming(out);
  return {};
}

Failure ScheduledPlayout::GetFaults(IpPlayoutFaultCounts& out) {
  const std::shared_ptr<ScheduledRun> run = ShareRun();
  out = run == nullptr ? IpPlayoutFaultCounts{} : run->Faults();
  return run == nullptr ? NeverStarted() : Failure();
}

Failure ScheduledPlayout::GetLateness(std::int64_t up_to_ns, std::uint64_t& frames,
                                      std::int64_t& sum_ns) {
  const std::shared_ptr<ScheduledRun> run = ShareRun();
  frames = 0;
  sum_ns = 0;
  if (run == nullptr) {
    return NeverStarted();
  }
  const auto part = run->LatenessUpTo(std::chrono::nanoseconds(up_to_ns));
  frames = part.count;
  sum_ns = part.sum.count();
  return {};
}

template <typename Record, typename Convert>
Failure ScheduledPlayout::TakeFromLedger(std::span<Record> out, std::size_t& taken,
                                         Convert convert) {
  taken = 0;
  const std::shared_ptr<ScheduledRun> run = ShareRun();
  if (run == nullptr) {
    return NeverStarted();
  }
  if (!run->Ledger().IsKept()) {
    return NoLedger();
  }
  if (run->WritesLedger()) {
    return {IPPLAYOUT_BAD_STATE, "the ledger goes to its file; read it there"};
  }
  const platform::MutexLock lock(ledger_mutex_);
  taken = TakeRecords(run->Ledger(), out, convert);
  return {};
}

Failure ScheduledPlayout::ReadLedger(IpPlayoutRecord* out, std::size_t room, std::size_t& taken) {
  return TakeFromLedger(std::span(out, room), taken,
                        [](const IpPlayoutDeparture& departure) { return departure.Frame; });
}

Failure ScheduledPlayout::ReadDepartures(IpPlayoutDeparture* out, std::size_t room,
                                         std::size_t& taken) {
  return TakeFromLedger(std::span(out, room), taken,
                        [](const IpPlayoutDeparture& departure) { return departure; });
}

std::uint64_t ScheduledPlayout::Seed() {
  const std::shared_ptr<ScheduledRun> run = ShareRun();
  return run == nullptr ? 0 : run->Seed();
}

}  // namespace ipplayout
