// SPDX-License-Identifier: MIT
// One playout as the transmitter of its destination knows it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

#include "driver/frame_sink.h"
#include "platform/request_stack.h"
#include "platform/signal.h"
#include "transmit/departure_ledger.h"
#include "transmit/departure_policy.h"
#include "transmit/frame_ring.h"
#include "transmit/timing_record.h"

namespace ipplayout {

// What a stream calls back. On the transmitter's thread: none may block, but for OnFullLedger.
class StreamListener {
 public:
  // Half of the ring is free again.
  virtual void OnRoom() = 0;
  // The ledger is full. Where time is virtual, so that nobody waits: this may take records.
  virtual void OnFullLedger() {}
  // No further frame leaves: all have left, or with a system error number the destination refused
  // one. Once for each stream; the stream has left the schedule.
  virtual void OnEnd(int error) = 0;

 protected:
  ~StreamListener() = default;
};

struct StreamRules {
  bool is_precise = true;
  LateRule late;
  bool ends_when_refused = true;
  bool wants_stamps = false;
  double frames_per_second = 0;  // about
};

// Made before each run and gone after it. What is not said to be atomic belongs to the transmitter
// from Add until the stream has ended or was removed.
struct ScheduledStream : platform::RequestNode {
  using Time = std::chrono::nanoseconds;

  // What the ledger keeps.
  struct LedgerSize {
    std::size_t frames = 0;
    bool with_bytes = false;
  };

  ScheduledStream(std::size_t ring_frames, std::size_t longest_frame, LedgerSize ledger_size,
                  const StreamRules& stream_rules, FrameSink& to, StreamListener& told)
      : ring(ring_frames, longest_frame),
        ledger(ledger_size.frames, ledger_size.with_bytes ? longest_frame : 0),
        rules(stream_rules),
        sink(to),
        listener(told),
        policy(stream_rules.late) {}

  // Each has its own rule of who does what.
  FrameRing ring;
  TimingRecord timing;
  DepartureLedger ledger;

  const StreamRules rules;
  FrameSink& sink;
  StreamListener& listener;

  // Asked for by other threads, with a request behind it.
  std::atomic<bool> all_built{false};  // by the builder: nothing comes behind what is in the ring
  std::atomic<bool> wants_pause{false};
  std::atomic<bool> wants_removal{false};
  bool is_added = false;     // under the transmitter's mutex
  platform::Signal removed;  // by the transmitter: it does not look at the stream again

  enum class State {
    kFresh,      // not in the schedule yet
    kAwaiting,   // its ring is empty
    kScheduled,  // in the schedule, at `turn`
    kPaused,
    kGone,
  };
  State state = State::kFresh;
  std::optional<Time> start;  // of its schedule; without one it begins with its first frame
  DeparturePolicy policy;
  Time planned{0};                 // when its next frame is to leave
  Time turn{0};                    // when it is looked at: then, or later where its sink was full
  std::optional<Time> full_since;  // its sink takes nothing
  Time paused_at{0};
  Time awaiting_since{0};            // in kAwaiting: no time before it was spent without a frame
  std::uint64_t number = 0;          // in the order of adding: parts streams that are due together
  std::uint64_t retries_before = 0;  // of the sink, by streams that came earlier
};

}  // namespace ipplayout
