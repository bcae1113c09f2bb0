// SPDX-License-Identifier: MIT
#include "transmit/schedule_transmitter.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "ipplayout/playouts.h"
#include "platform/clock.h"

namespace ipplayout {
namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;

// Frames that are due so close together leave in one call.
constexpr nanoseconds kTogether = microseconds(3);
// Where frames are gathered the thread wakes up no more often than this, and spins through nothing:
// what is due meanwhile leaves together. A wake-up costs as much as a few frames.
constexpr nanoseconds kGathering = microseconds(100);
// Where precise streams are gathered, a wait of this length or more is still spun through at its
// end, for a quarter of it at most: streams in step leave long rests between their frames.
constexpr nanoseconds kLongRest = microseconds(600);
// More streams than this are gathered: their frames fall so close together that exact waits for
// each would take up a processor.
constexpr std::size_t kMostPreciseStreams = 8;
// What sending a frame takes at most, and the share of the time above which a thread in the
// real-time class would be stopped by the kernel before long.
constexpr double kFrameWork = 2.5e-6;
constexpr double kMostWork = 0.5;
// A precise wait for frames that are closer together than this is spun through as a whole.
constexpr double kShortestRest = 100e-6;
// A removal waits so long for a frame that is in the sink's hands, and a frame for room in a sink
// that does not wait itself.
constexpr nanoseconds kPatienceWithSink = std::chrono::seconds(1);
constexpr nanoseconds kBetweenTries = microseconds(500);
// With more stamps than this to be read they are read although the next frame is due.
constexpr std::size_t kMostStampsUnread = 32;
constexpr nanoseconds kTimeToReadStamps = microseconds(30);

// The order of a heap with the stream that is due first on top.
bool IsLater(const ScheduledStream* a, const ScheduledStream* b) {
  return a->turn != b->turn ? a->turn > b->turn : a->number > b->number;
}

}  // namespace

ScheduleTransmitter::ScheduleTransmitter(std::unique_ptr<platform::DeadlineWaiter> waiter,
                                         bool is_virtual)
    : OsaThread("ScheduleTransmitter", 0, OsaThreadPriority::AboveNormal()),
      waiter_(std::move(waiter)),
      is_virtual_(is_virtual) {
  heap_.reserve(kMostStreams);
  StartSilently();
}

ScheduleTransmitter::~ScheduleTransmitter() {
  Stop();
  Join();
}

void ScheduleTransmitter::Stop() {
  OsaThread::Stop();
  waiter_->Interrupt();
}

// ---- Other threads ----

bool ScheduleTransmitter::Add(std::span<ScheduledStream* const> streams,
                              std::optional<Time> start) {
  const platform::MutexLock lock(changes_mutex_);
  if (streams_ + streams.size() > kMostStreams) {
    return false;
  }
  double frames_per_second = frames_per_second_.load();
  for (ScheduledStream* stream : streams) {
    stream->start = start;
    stream->is_added = true;
    ++streams_;
    precise_streams_ += stream->rules.is_precise ? 1 : 0;
    frames_per_second += stream->rules.frames_per_second;
  }
  frames_per_second_.store(frames_per_second);
  AdaptToLoad();
  requests_.PushTogether(streams);
  waiter_->Interrupt();
  return true;
}

void ScheduleTransmitter::Remove(ScheduledStream& stream) {
  {
    const platform::MutexLock lock(changes_mutex_);
    if (!stream.is_added) {
      return;
    }
  }
  stream.wants_removal.store(true);
  Request(stream);
  if (!stream.removed.WaitUntil(platform::MonotonicNow() + kPatienceWithSink)) {
    GiveUpUntilRemoved(stream);
  }
  const platform::MutexLock lock(changes_mutex_);
  --streams_;
  precise_streams_ -= stream.rules.is_precise ? 1 : 0;
  frames_per_second_.store(
      streams_ == 0 ? 0 : frames_per_second_.load() - stream.rules.frames_per_second);
  AdaptToLoad();
}

// The sink holds the thread, as a pipe does that nobody reads.
void ScheduleTransmitter::GiveUpUntilRemoved(ScheduledStream& stream) {
  {
    const platform::MutexLock lock(changes_mutex_);
    ++giving_up_;
    waiter_->GiveUpAt(Time::min());
  }
  stream.removed.Wait();
  const platform::MutexLock lock(changes_mutex_);
  if (--giving_up_ == 0) {
    waiter_->GiveUpAt(Time::max());
  }
}

void ScheduleTransmitter::Request(ScheduledStream& stream) {
  if (requests_.Push(stream)) {
    waiter_->Interrupt();
  }
}

// By a thread of the host's: the transmitter has given up the right to enter the real-time class.
void ScheduleTransmitter::AdaptToLoad() {
  const bool gathers = !is_virtual_ && (precise_streams_ == 0 || streams_ > kMostPreciseStreams);
  waits_.store(!gathers               ? Waits::kExact
               : precise_streams_ > 0 ? Waits::kGatheredPrecise
                                      : Waits::kGathered);
  const double rate = frames_per_second_.load();
  UseRealTime(!is_virtual_ && rate * kFrameWork < kMostWork &&
              (gathers || rate * kShortestRest < 1));
  SetPriority(OsaThreadPriority::AboveNormal());
}

// ---- The thread ----

void ScheduleTransmitter::Run() {
  platform::GiveUpCapabilities();
  platform::UseFinestTimerSlack();
  while (!StopRequested()) {
    TakeRequests();
    const Time now = waiter_->Now();
    if (!heap_.empty() && MayGo() && heap_.front()->turn <= LatestDue(now)) {
      SendDue(now);
    } else {
      Wait(now);
    }
  }
}

void ScheduleTransmitter::TakeRequests() {
  if (requests_.IsEmpty()) {
    return;
  }
  platform::RequestNode* node = requests_.TakeAll();
  TakeArrivals(node);
  while (node != nullptr) {
    auto& stream = static_cast<ScheduledStream&>(*node);
    node = node->next;
    stream.requested.store(false);
    if (!stream.wants_removal.load()) {
      Refresh(stream);
    } else if (!stream.requested.exchange(true)) {
      // It stays requested: the request for the removal, which may yet be on its way, enters no
      // more. One that has entered meanwhile is taken first.
      AcknowledgeRemoval(stream);
    }
  }
}

// Streams that arrive together come in one list. All of them are awaited before the first one is
// looked at.
void ScheduleTransmitter::TakeArrivals(platform::RequestNode* first) {
  bool any = false;
  for (platform::RequestNode* node = first; node != nullptr; node = node->next) {
    auto& stream = static_cast<ScheduledStream&>(*node);
    if (stream.state == ScheduledStream::State::kFresh) {
      stream.number = ++last_number_;
      stream.state = ScheduledStream::State::kAwaiting;
      stream.retries_before = stream.sink.Retries();
      ++awaiting_;
      any = true;
    }
  }
  if (any) {
    stamps_.SampleFor(frames_per_second_.load());
    HastenWakeUps();
  }
}

void ScheduleTransmitter::HastenWakeUps() {
  if (!is_virtual_ && !short_wake_ups_) {
    short_wake_ups_.emplace();
  }
}

void ScheduleTransmitter::Refresh(ScheduledStream& stream) {
  using State = ScheduledStream::State;
  if (stream.state == State::kGone) {
    return;
  }
  const Time now = waiter_->Now();
  if (stream.wants_pause.load() != (stream.state == State::kPaused)) {
    Pause(stream, now);
  }
  if (stream.state != State::kAwaiting) {
    return;
  }
  if (stream.ring.AwaitFrame()) {
    // What is built comes before the word that it was all.
    if (!stream.all_built.load()) {
      return;
    }
    if (stream.ring.Front() == nullptr) {
      End(stream, 0);
      return;
    }
  }
  Schedule(stream, now);
}

// Goes into a pause or out of it.
void ScheduleTransmitter::Pause(ScheduledStream& stream, Time now) {
  if (stream.state != ScheduledStream::State::kPaused) {
    LeaveSchedule(stream);
    stream.state = ScheduledStream::State::kPaused;
    stream.paused_at = now;
    return;
  }
  if (stream.start) {
    // A pause before the start is over when the schedule begins.
    const Time begun = std::max(stream.paused_at, *stream.start);
    stream.policy.Shift(std::max(now - begun, Time::zero()));
    stream.timing.Shifted(stream.policy.Shifted());
  }
  stream.state = ScheduledStream::State::kAwaiting;
  stream.awaiting_since = now;
  ++awaiting_;
  HastenWakeUps();
}

// The ring of a stream that waited for a frame has one.
void ScheduleTransmitter::Schedule(ScheduledStream& stream, Time now) {
  const QueuedFrame& frame = *stream.ring.Front();
  if (!stream.start) {
    stream.start = now - frame.due;
  }
  stream.full_since.reset();  // a pause is no time in which the sink was full
  stream.planned = stream.turn = stream.policy.Plan(*stream.start + frame.due);
  // What follows late data is late, too, and not missing once more.
  const Time dry = now - std::max(stream.planned, stream.awaiting_since);
  if (dry > stream.rules.late.tolerance) {
    stream.timing.WasDry(dry);
  }
  --awaiting_;
  stream.state = ScheduledStream::State::kScheduled;
  heap_.push_back(&stream);
  std::push_heap(heap_.begin(), heap_.end(), IsLater);
}

void ScheduleTransmitter::LeaveSchedule(ScheduledStream& stream) {
  if (stream.state == ScheduledStream::State::kAwaiting) {
    --awaiting_;
  } else if (stream.state == ScheduledStream::State::kScheduled) {
    std::erase(heap_, &stream);
    std::make_heap(heap_.begin(), heap_.end(), IsLater);
  }
}

void ScheduleTransmitter::End(ScheduledStream& stream, int error) {
  LeaveSchedule(stream);
  stream.state = ScheduledStream::State::kGone;
  stream.timing.Discarded(stream.ring.Waiting());
  stamps_.Read();
  stamps_.Forget(stream);
  stream.ledger.Settle();
  stream.listener.OnEnd(error);
}

// Only while the stream is requested and in no list: no request enters any more.
void ScheduleTransmitter::AcknowledgeRemoval(ScheduledStream& stream) {
  if (stream.state != ScheduledStream::State::kGone) {
    End(stream, ECANCELED);
  }
  // What the builder has added since the end.
  stream.timing.Discarded(stream.ring.Waiting());
  stream.removed.Set();
}

void ScheduleTransmitter::Wait(Time now) {
  if (stamps_.Outstanding() > 0) {
    stamps_.Read();
  }
  Time target = platform::DeadlineWaiter::kNever;
  if (!heap_.empty() && MayGo()) {
    target = heap_.front()->turn;
  } else if (heap_.empty() && awaiting_ == 0) {
    short_wake_ups_.reset();
  }
  Time spin = target;
  const Waits waits = waits_.load(std::memory_order_relaxed);
  if (waits != Waits::kExact) {
    target = std::max(target, last_wake_ + kGathering);
    const Time rest = target - now;
    spin = waits == Waits::kGatheredPrecise && rest >= kLongRest ? rest / 4 : Time::zero();
  }
  waiter_->WaitUntilInterrupted(target, spin);
  last_wake_ = waiter_->Now();
}

// ---- Sending ----

void ScheduleTransmitter::SendDue(Time now) {
  Collect(now);
  if (burst_count_ > 0) {
    SendCollected();
  }
  LetGo();
  if (stamps_.Outstanding() >= kMostStampsUnread ||
      (stamps_.Outstanding() > 0 && !heap_.empty() &&
       heap_.front()->turn > waiter_->Now() + kTimeToReadStamps)) {
    stamps_.Read();
  }
}

ScheduleTransmitter::Time ScheduleTransmitter::LatestDue(Time now) const {
  return is_virtual_ ? now : now + kTogether;
}

// One burst goes to one destination.
void ScheduleTransmitter::Collect(Time now) {
  taken_count_ = 0;
  burst_count_ = 0;
  const FrameSink* sink = nullptr;
  const Time latest = LatestDue(now);
  while (!heap_.empty() && taken_count_ < taken_.size() && MayGo()) {
    ScheduledStream& stream = *heap_.front();
    if (stream.turn > latest || (sink != nullptr && sink != &stream.sink)) {
      return;
    }
    sink = &stream.sink;
    TakeFrame(stream, now);
    PlanNext(stream, now);
  }
}

void ScheduleTransmitter::TakeFrame(ScheduledStream& stream, Time now) {
  const QueuedFrame& frame = *stream.ring.Front();
  const Time due = *stream.start + frame.due;
  const Time place = stream.policy.Place(due);
  const Time planned = stream.planned;
  Taken& taken = taken_[taken_count_];
  taken = {&stream, &frame, place, false, 0, planned, stream.policy};
  taken.goes = stream.policy.Settle(due, planned, now);
  stream.timing.Shifted(stream.policy.Shifted());
  if (taken.goes && frame.leaves) {
    burst_[burst_count_] = {FrameRing::BytesOf(frame), is_virtual_ ? planned : now,
                            stamps_.TagFor(stream, place)};
    taken_of_burst_[burst_count_] = static_cast<std::uint8_t>(taken_count_);
    ++burst_count_;
  }
  ++taken_count_;
  stream.ring.Take();
}

void ScheduleTransmitter::PlanNext(ScheduledStream& stream, Time now) {
  std::pop_heap(heap_.begin(), heap_.end(), IsLater);
  const QueuedFrame* const next = stream.ring.Front();
  if (next == nullptr) {
    // Looked at again when the frames before it have left.
    heap_.pop_back();
    stream.state = ScheduledStream::State::kAwaiting;
    stream.awaiting_since = now;
    ++awaiting_;
    return;
  }
  stream.planned = stream.turn = stream.policy.Plan(*stream.start + next->due);
  std::push_heap(heap_.begin(), heap_.end(), IsLater);
}

void ScheduleTransmitter::SendCollected() {
  const Time begun = waiter_->Now();
  std::size_t next = 0;
  while (next < burst_count_) {
    next = SendFrom(next);
  }
  Record(begun, waiter_->Now());
}

// Sends what is left of the burst. Returns where to go on: behind a frame that is refused for
// itself, or at the end.
std::size_t ScheduleTransmitter::SendFrom(std::size_t first) {
  FrameSink& sink = taken_[taken_of_burst_[first]].stream->sink;
  const std::span<const OutgoingFrame> rest(&burst_[first], burst_count_ - first);
  const FrameSink::Result result = sink.Send(rest, *waiter_);
  const std::size_t refused = first + result.sent;
  if (TriesAgain(*taken_[taken_of_burst_[first]].stream, result)) {
    PutBack(refused);
    return burst_count_;
  }
  if (refused >= burst_count_) {
    return burst_count_;
  }
  if (result.error == ECANCELED) {
    // For removals, which were requested before it and are taken before the next burst.
    waiter_->GiveUpAt(Time::max());
  }
  const std::size_t end = result.of_frame ? refused + 1 : burst_count_;
  for (std::size_t i = refused; i < end; ++i) {
    taken_[taken_of_burst_[i]].error = result.error == 0 ? EIO : result.error;
  }
  return end;
}

// A sink that does not wait is one stream's own. It may be full for a while; after that nothing is
// waited for until it takes a frame again.
bool ScheduleTransmitter::TriesAgain(ScheduledStream& stream,
                                     const FrameSink::Result& result) const {
  if (result.sent > 0 || !result.is_full) {
    stream.full_since.reset();
  }
  if (!result.is_full) {
    return false;
  }
  const Time now = waiter_->Now();
  stream.full_since = stream.full_since.value_or(now);
  return now - *stream.full_since < kPatienceWithSink;
}

// What is left of the burst goes back to its ring, and other streams have their turn.
void ScheduleTransmitter::PutBack(std::size_t first) {
  for (std::size_t i = first; i < burst_count_; ++i) {
    stamps_.Withdraw(burst_[i].tag);
  }
  const std::size_t place = taken_of_burst_[first];
  const Taken& taken = taken_[place];
  ScheduledStream& stream = *taken.stream;
  stream.ring.PutBack(taken_count_ - place);
  stream.policy = taken.policy;
  stream.timing.Retried(stream.sink.Retries() - stream.retries_before);
  LeaveSchedule(stream);
  stream.state = ScheduledStream::State::kScheduled;
  stream.planned = taken.planned;
  stream.turn = waiter_->Now() + kBetweenTries;
  heap_.push_back(&stream);
  std::push_heap(heap_.begin(), heap_.end(), IsLater);
  taken_count_ = place;
  burst_count_ = first;
}

// A burst takes a while to be handed over: its frames left between the two.
void ScheduleTransmitter::Record(Time begun, Time ended) {
  const std::uint64_t retries = taken_[taken_of_burst_[0]].stream->sink.Retries();
  for (std::size_t i = 0; i < burst_count_; ++i) {
    Taken& taken = taken_[taken_of_burst_[i]];
    ScheduledStream& stream = *taken.stream;
    stream.timing.Retried(retries - stream.retries_before);
    if (taken.error != 0) {
      stream.timing.NotSent();
      continue;
    }
    const Time departure = is_virtual_ ? burst_[i].due
                                       : begun + (ended - begun) * static_cast<int>(i) /
                                                     static_cast<int>(burst_count_);
    stream.timing.Left(departure - taken.place, stream.rules.late.tolerance);
    if ((taken.frame->did & (IPPLAYOUT_DID_FEC_COLUMN | IPPLAYOUT_DID_FEC_ROW)) == 0) {
      stream.timing.Departed(departure);
    }
    burst_[i].due = departure;
  }
}

void ScheduleTransmitter::AddToLedgers() {
  std::size_t sent = 0;
  for (std::size_t i = 0; i < taken_count_; ++i) {
    const Taken& taken = taken_[i];
    ScheduledStream& stream = *taken.stream;
    const QueuedFrame& frame = *taken.frame;
    const bool was_in_burst = taken.goes && frame.leaves;
    const bool left = was_in_burst && taken.error == 0;
    const bool left_out = !taken.goes && frame.leaves;
    if (left_out) {
      stream.timing.LeftOut();
    }
    if (stream.ledger.IsKept()) {
      const std::uint32_t did = frame.did | (left_out ? IPPLAYOUT_DID_LEAVE_OUT : 0) |
                                (taken.error == 0 ? 0 : IPPLAYOUT_DID_REFUSE);
      if (is_virtual_ && stream.ledger.IsFull()) {
        stream.listener.OnFullLedger();
      }
      const std::uint32_t tag = left ? burst_[sent].tag : 0;
      const std::uint64_t record = stream.ledger.Add(
          {{frame.datagram, frame.copy, did, frame.due.count(),
            left ? burst_[sent].due.count() : -1, frame.length, frame.rtp_sequence},
           taken.place.count(),
           -1},
          FrameRing::BytesOf(frame), tag != 0);
      stamps_.EnterRecord(tag, record);
    }
    sent += was_in_burst ? 1 : 0;
  }
}

// The stream keeps its time: what waited behind the frame need not be spread out.
void ScheduleTransmitter::PlanWithoutRefused(ScheduledStream& stream) {
  stream.policy.Refused();
  if (stream.state != ScheduledStream::State::kScheduled) {
    return;
  }
  const Time planned = stream.policy.Plan(*stream.start + stream.ring.Front()->due);
  if (planned != stream.planned) {
    stream.planned = stream.turn = planned;
    std::make_heap(heap_.begin(), heap_.end(), IsLater);
  }
}

// Gives the frames back to their rings.
void ScheduleTransmitter::LetGo() {
  AddToLedgers();
  for (std::size_t i = 0; i < taken_count_; ++i) {
    ScheduledStream& stream = *taken_[i].stream;
    if (stream.ring.ReleaseTaken()) {
      stream.listener.OnRoom();
    }
  }
  for (std::size_t i = 0; i < taken_count_; ++i) {
    ScheduledStream& stream = *taken_[i].stream;
    if (stream.state == ScheduledStream::State::kGone) {
      continue;
    }
    const int error = taken_[i].error;
    // A frame that was given up for the removal of another stream does not end this one.
    const bool is_refused = error != 0 && error != ECANCELED;
    if (is_refused && stream.rules.ends_when_refused) {
      End(stream, error);
      continue;
    }
    if (is_refused) {
      PlanWithoutRefused(stream);
    }
    if (stream.state == ScheduledStream::State::kAwaiting) {
      Refresh(stream);
    }
  }
}

}  // namespace ipplayout
