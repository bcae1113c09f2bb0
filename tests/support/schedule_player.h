// SPDX-License-Identifier: MIT
// A playout as a test of the schedule's transmitter builds it, by hand.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <initializer_list>
#include <span>

#include "tests/support/blocked_call.h"
#include "tests/support/fake_frame_sink.h"
#include "transmit/schedule_transmitter.h"

namespace ipplayout {

// Nothing holds back what is late.
inline StreamRules AtOnce() {
  StreamRules rules;
  rules.late.what = WhenLate::kCatchUp;
  return rules;
}

// A playout whose frames say in two bytes whose they are and which.
class Player final : private StreamListener {
 public:
  Player(std::uint8_t name, FrameSink& sink, const StreamRules& rules = {},
         std::size_t ledger_frames = 0)
      : stream(16, 2, {ledger_frames, true}, rules, sink, *this), name_(name) {}

  void Push(std::chrono::nanoseconds due, bool leaves = true, std::uint32_t did = 0) {
    const std::uint8_t bytes[] = {name_, next_};
    QueuedFrame frame;
    frame.due = due;
    frame.datagram = next_++;
    frame.length = sizeof bytes;
    frame.leaves = leaves;
    frame.did = did;
    stream.ring.Push(frame, bytes);
  }
  Player& Holding(std::initializer_list<std::chrono::nanoseconds> dues) {
    for (const std::chrono::nanoseconds due : dues) {
      Push(due);
    }
    return *this;
  }
  Player& ThatIsAll() {
    stream.all_built = true;
    return *this;
  }
  // The error it ended with.
  int Ended() {
    auto end = ended_.get_future();
    return Returns(end) ? end.get() : -1;
  }
  TimingRecord::Counts Counts() const { return stream.timing.Read(); }
  int Rooms() const { return rooms_; }

  ScheduledStream stream;

 private:
  void OnRoom() override { ++rooms_; }
  void OnEnd(int error) override { ended_.set_value(error); }

  const std::uint8_t name_;
  std::uint8_t next_ = 0;
  std::atomic<int> rooms_{0};
  std::promise<int> ended_;
};

inline std::size_t Records(Player& player, std::span<IpPlayoutRecord> out) {
  return TakeRecords(player.stream.ledger, out,
                     [](const IpPlayoutDeparture& departure) { return departure.Frame; });
}

}  // namespace ipplayout
