// SPDX-License-Identifier: MIT
// Checks the departure stamps of what a test sends.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "driver/frame_sink.h"
#include "platform/clock.h"

namespace ipplayout {

// Sends frames with and without tags, notes when, and collects the departures on another thread.
class StampedSending {
 public:
  explicit StampedSending(FrameSink& sink) : sink_(sink), reader_([this] { Collect(); }) {}
  ~StampedSending() { Finish(); }

  FrameSink::Result Send(const std::vector<OutgoingFrame>& frames) {
    const std::chrono::nanoseconds before = platform::MonotonicNow();
    const auto result = sink_.Send(frames, waiter_);
    const std::chrono::nanoseconds after = platform::MonotonicNow();
    for (std::size_t i = 0; i < result.sent; ++i) {
      if (frames[i].tag != 0) {
        sent_[frames[i].tag] = {before, after};
      }
    }
    return result;
  }

  // Waits for those under way, but not for ever: false when one is missing.
  bool CatchUp() {
    std::unique_lock lock(mutex_);
    return more_.wait_for(lock, std::chrono::minutes(1),
                          [this] { return departures_.size() >= sent_.size(); });
  }

  // Checks what has come against what was sent.
  void Finish() {
    if (!reader_.joinable()) {
      return;
    }
    CatchUp();
    ended_ = true;
    reader_.join();
    ASSERT_EQ(departures_.size(), sent_.size());
    std::chrono::nanoseconds last{0};
    constexpr std::chrono::nanoseconds kOfReadingClocks = std::chrono::microseconds(1);
    for (const Departure& departure : departures_) {
      ASSERT_EQ(sent_.count(departure.tag), 1U) << departure.tag;
      EXPECT_GE(departure.time, sent_[departure.tag].before - kOfReadingClocks);
      EXPECT_LE(departure.time, sent_[departure.tag].after + kOfReadingClocks);
      EXPECT_GE(departure.time, last - kOfReadingClocks);
      EXPECT_FALSE(departure.hardware);
      last = departure.time;
      sent_.erase(departure.tag);
    }
  }

 private:
  struct Call {
    std::chrono::nanoseconds before, after;
  };

  void Collect() {
    std::array<Departure, 50> some;
    while (!ended_) {
      pollfd errors{sink_.DepartureDescriptor(), 0, 0};
      ::poll(&errors, 1, 10);
      const std::size_t count = sink_.ReadDepartures(some);
      const std::lock_guard lock(mutex_);
      departures_.insert(departures_.end(), some.begin(), some.begin() + count);
      more_.notify_all();
    }
  }

  FrameSink& sink_;
  platform::DeadlineWaiter waiter_;
  std::map<std::uint32_t, Call> sent_;
  std::atomic<bool> ended_{false};
  std::mutex mutex_;
  std::condition_variable more_;
  std::vector<Departure> departures_;  // under the mutex, until the reader has ended
  std::thread reader_;
};

// Sends a frame again and again, in bursts of all lengths, until `count` had a tag: every
// `every`th.
inline void SendTagged(FrameSink& sink, std::span<const std::uint8_t> frame, std::uint32_t count,
                       std::uint32_t every) {
  StampedSending sending(sink);
  std::uint32_t index = 0;
  for (std::uint32_t tagged = 0, burst = 0; tagged < count; ++burst) {
    std::vector<OutgoingFrame> frames;
    for (std::size_t i = 0; i <= burst % FrameSink::kMostFrames; ++i, ++index) {
      const bool has_tag = index % every == 0;
      tagged += has_tag ? 1 : 0;
      // Tags in no order, so that one that is out of step cannot pass for right.
      frames.push_back({frame, {}, has_tag ? (index + 1) * 2'654'435'761U : 0});
    }
    ASSERT_EQ(sending.Send(frames).sent, frames.size());
    // However slow the machine, the kernel then keeps those that are under way.
    ASSERT_TRUE(burst % 8 != 7 || sending.CatchUp());
  }
}

}  // namespace ipplayout
