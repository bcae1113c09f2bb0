// SPDX-License-Identifier: MIT
// A destination of frames that records them and fails as a test wants, by itself or before a real
// one.
#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <mutex>
#include <utility>
#include <vector>

#include "driver/frame_sink.h"

namespace ipplayout {

// Set the switches before the code under test runs; the rest may be used from any thread.
class FakeFrameSink final : public FrameSink {
 public:
  static constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

  struct SentFrame {
    std::vector<std::uint8_t> bytes;
    std::chrono::nanoseconds due{0};
    std::uint32_t tag = 0;
    std::chrono::nanoseconds time{0};  // on the waiter's clock, as Send began
    std::size_t call = 0;              // which call of Send
  };
  struct Refusal {
    int error = 0;  // 0: none
    bool of_frame = true;
  };

  // `inner` gets what is not refused, and gives the departures; without one every frame counts as
  // sent, and those with a tag as departed when Send began.
  explicit FakeFrameSink(FrameSink* inner = nullptr) : inner_(inner) {}

  // Switches.
  bool is_virtual = false;
  bool keep_sent = true;  // false: frames are only counted
  int finish_error = 0;
  // With a full queue; 0: it is not waited for, and the result is_full.
  std::chrono::nanoseconds patience = std::chrono::seconds(1);
  // Asked before each frame.
  std::function<Refusal(const OutgoingFrame&)> refuse;
  // Called as Send begins: a slow adapter advances the clock or blocks here.
  std::function<void(std::span<const OutgoingFrame>)> on_send;
  // Called as Finish begins.
  std::function<void()> on_finish;

  // From now on the queue takes so many frames, then it is full. Ends the wait of a Send.
  void SetRoom(std::size_t frames) {
    const std::lock_guard lock(mutex_);
    room_ = frames;
    changed_.notify_all();
  }

  // Records.
  std::vector<SentFrame> Sent() const { return Copy(sent_); }
  std::uint64_t SentFrames() const { return Copy(sent_frames_); }
  std::size_t Calls() const { return Copy(calls_); }
  int Finishes() const { return Copy(finishes_); }

  Result Send(std::span<const OutgoingFrame> frames,
              const platform::DeadlineWaiter& waiter) override {
    if (on_send) {
      on_send(frames);
    }
    const auto now = waiter.Now();
    const std::size_t call = Count(calls_);
    Result result;
    for (const OutgoingFrame& frame : frames) {
      if (!SendOne(frame, waiter, result)) {
        break;
      }
      ++result.sent;
      Note({keep_sent ? std::vector(frame.bytes.begin(), frame.bytes.end())
                      : std::vector<std::uint8_t>(),
            frame.due, frame.tag, now, call});
    }
    return result;
  }

  const char* Name() const override { return inner_ == nullptr ? "fake" : inner_->Name(); }
  std::uint64_t Retries() const override {
    return Copy(waits_) + (inner_ == nullptr ? 0 : inner_->Retries());
  }
  std::size_t ReadDepartures(std::span<Departure> out) override {
    if (inner_ != nullptr) {
      return inner_->ReadDepartures(out);
    }
    const std::lock_guard lock(mutex_);
    const std::size_t count = std::min(out.size(), departures_.size());
    std::copy_n(departures_.begin(), count, out.begin());
    departures_.erase(departures_.begin(),
                      departures_.begin() + static_cast<std::ptrdiff_t>(count));
    return count;
  }
  int DepartureDescriptor() const override {
    return inner_ == nullptr ? -1 : inner_->DepartureDescriptor();
  }
  bool IsVirtual() const override {
    return is_virtual || (inner_ != nullptr && inner_->IsVirtual());
  }
  int Finish() override {
    if (on_finish) {
      on_finish();
    }
    Count(finishes_);
    const int error = inner_ == nullptr ? 0 : inner_->Finish();
    return finish_error != 0 ? finish_error : error;
  }

 private:
  template <typename T>
  T Copy(const T& value) const {
    const std::lock_guard lock(mutex_);
    return value;
  }
  // The value before.
  template <typename T>
  T Count(T& counter) {
    const std::lock_guard lock(mutex_);
    return counter++;
  }

  bool SendOne(const OutgoingFrame& frame, const platform::DeadlineWaiter& waiter, Result& result) {
    if (const Refusal refusal = refuse ? refuse(frame) : Refusal{}; refusal.error != 0) {
      result.error = refusal.error;
      result.of_frame = refusal.of_frame;
    } else if (!TakeRoom(waiter)) {
      result.error = waiter.ShouldGiveUp() ? ECANCELED : ENOBUFS;
      result.is_full = patience == patience.zero();
    } else if (inner_ != nullptr) {
      const Result inner = inner_->Send({&frame, 1}, waiter);
      result.error = inner.error;
      result.of_frame = inner.of_frame;
    }
    return result.error == 0;
  }

  bool TakeRoom(const platform::DeadlineWaiter& waiter) {
    // Nothing reports that a waiter has come to give up.
    constexpr auto kPiece = std::chrono::milliseconds(1);
    std::unique_lock lock(mutex_);
    const auto latest = std::chrono::steady_clock::now() + patience;
    waits_ += room_ == 0 ? 1U : 0U;
    while (room_ == 0) {
      if (waiter.ShouldGiveUp() || std::chrono::steady_clock::now() >= latest) {
        return false;
      }
      changed_.wait_for(lock, kPiece);
    }
    room_ -= room_ == kUnlimited ? 0 : 1;
    return true;
  }

  void Note(SentFrame frame) {
    const std::lock_guard lock(mutex_);
    ++sent_frames_;
    if (frame.tag != 0 && inner_ == nullptr) {
      departures_.push_back({frame.tag, frame.time, false});
    }
    if (keep_sent) {
      sent_.push_back(std::move(frame));
    }
  }

  FrameSink* const inner_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t room_ = kUnlimited;
  std::vector<SentFrame> sent_;
  std::uint64_t sent_frames_ = 0;
  std::deque<Departure> departures_;
  std::uint64_t waits_ = 0;
  std::size_t calls_ = 0;
  int finishes_ = 0;
};

}  // namespace ipplayout
