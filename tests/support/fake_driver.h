// SPDX-License-Identifier: MIT
// A capture driver without a network: records what is sent, refuses what a test wants refused.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "driver/capture_driver.h"
#include "driver/timed_batch.h"

namespace ipplayout {

struct SentFrame {
  std::vector<std::uint8_t> bytes;
  std::chrono::nanoseconds time{0};  // on the waiter's clock; 0 for SendFrame
};

struct OpenCall {
  std::string name;
  OpenOptions options;
};

// Handles write into their driver, so that a test can look after they are gone. Set the switches
// before the code under test runs; the rest may be used from any thread.
class FakeDriver final : public CaptureDriver {
 public:
  // Switches.
  std::optional<std::vector<Adapter>> adapters{std::vector<Adapter>()};  // none: the list fails
  std::map<std::string, MacAddress> macs;  // by name without prefix; a missing one: not opened
  std::map<std::string, MacResult> mac_results;  // overrides the result for a name
  std::string no_memory_for;                     // the name whose query runs out of memory
  unsigned long system_error = 19;
  bool refuse_open = false;
  int data_link = CaptureHandle::kEthernetDataLink;
  FilterResult filter_result;
  bool keep_sent = true;                          // false: frames are only counted
  std::function<void(const SentFrame&)> on_sent;  // called for each frame, before it counts as sent

  // Every frame behind the next `frames` ones is refused.
  void RefuseAfter(std::size_t frames) {
    const std::lock_guard lock(mutex_);
    accept_ = frames;
  }
  void AcceptAll() { RefuseAfter(kUnlimited); }
  bool AcceptsAll() const { return Copy(accept_) == kUnlimited; }
  // What NextFrame gives, in order; an empty one is a read timeout.
  void QueueReceived(std::vector<std::uint8_t> bytes, std::int64_t seconds = 0,
                     std::int64_t microseconds = 0) {
    const std::lock_guard lock(mutex_);
    received_.push_back({std::move(bytes), seconds, microseconds});
  }

  // Records.
  std::vector<SentFrame> Sent() const { return Copy(sent_); }
  // The time stamps in each queue that was to be transmitted, in microseconds.
  std::vector<std::vector<int>> Stamps() const { return Copy(stamps_); }
  std::uint64_t SentFrames() const { return Copy(sent_frames_); }
  std::vector<OpenCall> Opened() const { return Copy(opened_); }
  std::size_t Reads() const { return Copy(reads_); }
  int OpenHandles() const { return Copy(open_handles_); }

  std::optional<std::vector<Adapter>> FindAllAdapters() override { return adapters; }
  std::unique_ptr<CaptureHandle> Open(const std::string& name, const OpenOptions& options) override;
  MacResult QueryMac(const std::string& adapter, MacAddress& mac, unsigned long& error) override;

 private:
  friend class FakeHandle;
  static constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();
  struct ReceivedFrame {
    std::vector<std::uint8_t> bytes;
    std::int64_t seconds;
    std::int64_t microseconds;
  };

  template <typename T>
  T Copy(const T& value) const {
    const std::lock_guard lock(mutex_);
    return value;
  }
  bool Take(SentFrame frame);
  void NoteStamps(const SendQueue& queue);
  std::optional<ReceivedFrame> Read();

  mutable std::mutex mutex_;
  std::size_t accept_ = kUnlimited;
  std::deque<ReceivedFrame> received_;
  std::vector<SentFrame> sent_;
  std::vector<std::vector<int>> stamps_;
  std::uint64_t sent_frames_ = 0;
  std::vector<OpenCall> opened_;
  std::size_t reads_ = 0;
  int open_handles_ = 0;
};

}  // namespace ipplayout
