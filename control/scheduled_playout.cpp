// SPDX-License-Identifier: MIT
#include "control/scheduled_playout.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <utility>

#include "control/playout_rules.h"
#include "platform/clock.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

// Damaged by one call at most.
constexpr std::uint32_t kMostOrdered = 1'000'000;

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

Failure NeverStarted() {
  return {IPPLAYOUT_BAD_STATE, "the playout was not started yet"};
}

}  // namespace

ScheduledPlayout::~ScheduledPlayout() {
  Stop();
}

Failure ScheduledPlayout::Configure(const IpPlayoutSettings& settings) {
  if (Failure failure = CheckSettings(settings)) {
    return failure;
  }
  const platform::MutexLock lock(control_mutex_);
  if (state_ != State::kIdle) {
    return {IPPLAYOUT_BAD_STATE, "the playout runs; call IpPlayoutStop before IpPlayoutConfigure"};
  }
  const auto before = std::exchange(settings_, settings);
  Failure failure = RenewInput();
  if (failure) {
    settings_ = before;
  }
  return failure;
}

// Whoever still writes to the input before is released.
Failure ScheduledPlayout::RenewInput() {
  auto input = std::make_shared<Input>(settings_->RingBytes);
  if (input->ring.GetCapacity() == 0) {
    return NoMemory();
  }
  input->ring.SetListener(this);
  input->ring.SetStartThreshold(settings_->StartBytes);
  std::shared_ptr<Input> before;
  {
    const platform::MutexLock lock(shared_mutex_);
    before = std::exchange(input_, std::move(input));
  }
  if (before != nullptr) {
    before->ring.EndRun();
  }
  return {};
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
  {
    const platform::MutexLock lock(control_mutex_);
    if (settings_->BitRate > 0) {
      return {IPPLAYOUT_BAD_STATE, "the playout has a BitRate; marks need a BitRate of 0"};
    }
  }
  if (offset < input->written.load()) {
    return {IPPLAYOUT_BAD_VALUE, "the mark is at offset " + std::to_string(offset) +
                                     "; it is to lie at or behind what was written, " +
                                     std::to_string(input->written.load())};
  }
  switch (input->marks.Add({offset, nanoseconds(time_ns)})) {
    case TimeMarks::Added::kNotAhead:
      return {IPPLAYOUT_BAD_VALUE,
              "the mark is at offset " + std::to_string(offset) + " and time " +
                  std::to_string(time_ns) +
                  " ns; marks go up in offset, and not down in time or below 0"};
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
  if (!settings_) {
    return NotConfigured();
  }
  if (state_ != State::kIdle) {
    return {IPPLAYOUT_BAD_STATE, "the playout runs already; call IpPlayoutStop first"};
  }
  {
    const platform::MutexLock end_lock(end_mutex_);
    if (!end_event_) {
      end_event_ = platform::OwnedHostEvent::Create();
    }
    if (!end_event_) {
      return {IPPLAYOUT_NO_RESOURCES,
              "descriptors have run out; raise the limit of open files (ulimit -n)"};
    }
  }
  const std::shared_ptr<Input> input = ShareInput();
  ScheduledRun::Owner& owner = *this;
  auto run =
      std::make_shared<ScheduledRun>(*settings_, input->ring, input->marks, surroundings_, owner);
  if (Failure failure = run->Prepare()) {
    return failure;
  }
  {
    const platform::MutexLock end_lock(end_mutex_);
    end_event_->Clear();
    outcome_ = {};
    is_over_ = false;
    was_started_ = true;
  }
  const platform::MutexLock shared_lock(shared_mutex_);
  run_ = std::move(run);
  run_input_ = input;
  state_ = State::kPreparing;
  return {};
}

void ScheduledPlayout::Launched() {
  const platform::MutexLock lock(control_mutex_);
  {
    const platform::MutexLock shared_lock(shared_mutex_);
    takes_requests_ = true;
    run_->Launch();
  }
  state_ = State::kRunning;
  prepared_.NotifyAll();
}

void ScheduledPlayout::Abandon() {
  const platform::MutexLock lock(control_mutex_);
  run_->Withdraw();
  OnRunEnd(ECANCELED);
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
  // In pieces, for which room is found sooner than for the whole.
  const std::size_t most = input->ring.GetCapacity() / 4;
  while (bytes > 0) {
    const std::size_t piece = std::min(bytes, most);
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

// By the builder's thread, or by whoever stops the run.
void ScheduledPlayout::OnRunEnd(int error) {
  std::shared_ptr<Input> input;
  std::shared_ptr<ScheduledRun> run;
  {
    const platform::MutexLock lock(shared_mutex_);
    input = run_input_;
    run = run_;
  }
  input->ring.EndRun();
  const platform::MutexLock lock(end_mutex_);
  if (is_over_) {
    return;
  }
  is_over_ = true;
  if (error == ECANCELED) {
    outcome_ = {IPPLAYOUT_ENDED, "the playout was stopped"};
  } else if (error != 0) {
    outcome_ = {IPPLAYOUT_BAD_DESTINATION,
                std::string("the destination refused a frame: ") + std::strerror(error)};
  } else if (run->RanOutOfMemory()) {
    outcome_ = NoMemory();
  }
  platform::SignalHostEvent(end_event_->Handle());
  ended_.NotifyAll();
}

Failure ScheduledPlayout::Wait(std::optional<nanoseconds> timeout) {
  const nanoseconds deadline =
      timeout ? platform::MonotonicNow() + std::min(*timeout, nanoseconds(INT64_MAX / 2))
              : nanoseconds::zero();
  const platform::MutexLock lock(end_mutex_);
  if (!was_started_) {
    return NeverStarted();
  }
  while (!is_over_) {
    if (!timeout) {
      ended_.Wait(end_mutex_);
    } else if (!ended_.WaitUntil(end_mutex_, deadline) && !is_over_) {
      return {IPPLAYOUT_NOT_YET, "the playout goes on"};
    }
  }
  return outcome_;
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
  while (state_ == State::kPreparing) {
    prepared_.Wait(control_mutex_);
  }
  Failure failure;
  if (state_ == State::kRunning) {
    failure = EndRun();
  }
  if (settings_) {
    const Failure renewed = RenewInput();
    failure = failure ? failure : renewed;
  }
  return failure;
}

Failure ScheduledPlayout::EndRun() {
  {
    const platform::MutexLock shared_lock(shared_mutex_);
    takes_requests_ = false;
  }
  Failure failure = run_->Withdraw();
  OnRunEnd(ECANCELED);
  state_ = State::kIdle;
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

Failure ScheduledPlayout::Order(std::uint32_t what, std::uint32_t datagrams) {
  using Damage = DatagramBuilder::Damage;
  const struct {
    std::uint32_t what;
    Damage damage;
  } kKinds[] = {{IPPLAYOUT_DID_LOSE, Damage::kLoss},
                {IPPLAYOUT_DID_DELAY, Damage::kDelay},
                {IPPLAYOUT_DID_IP_CHECKSUM, Damage::kIpChecksum},
                {IPPLAYOUT_DID_UDP_CHECKSUM, Damage::kUdpChecksum}};
  if (datagrams == 0 || datagrams > kMostOrdered) {
    return {IPPLAYOUT_BAD_VALUE, "count is " + std::to_string(datagrams) + "; it can be 1 to " +
                                     std::to_string(kMostOrdered)};
  }
  const auto* kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                  [what](const auto& row) { return row.what == what; });
  if (kind == std::end(kKinds)) {
    return {IPPLAYOUT_BAD_VALUE,
            "what is " + std::to_string(what) +
                "; it can be IPPLAYOUT_DID_LOSE, ..._DELAY, ..._IP_CHECKSUM or ..._UDP_CHECKSUM"};
  }
  const platform::MutexLock lock(shared_mutex_);
  if (!takes_requests_) {
    return NotRunning();
  }
  if (kind->damage == Damage::kDelay && !run_->IsRtp()) {
    return {IPPLAYOUT_BAD_VALUE, "IPPLAYOUT_DID_DELAY needs RTP (ProtocolMode 1)"};
  }
  run_->Order(kind->damage, datagrams);
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

Failure ScheduledPlayout::ReadLedger(IpPlayoutRecord* out, std::size_t room, std::size_t& taken) {
  taken = 0;
  const std::shared_ptr<ScheduledRun> run = ShareRun();
  if (run == nullptr) {
    return NeverStarted();
  }
  if (!run->Ledger().IsKept()) {
    return {IPPLAYOUT_BAD_STATE, "no ledger is kept; set LedgerFrames before the start"};
  }
  const platform::MutexLock lock(ledger_mutex_);
  taken = run->Ledger().Take({out, room});
  return {};
}

std::uint64_t ScheduledPlayout::Seed() {
  const std::shared_ptr<ScheduledRun> run = ShareRun();
  return run == nullptr ? 0 : run->Seed();
}

}  // namespace ipplayout
