// SPDX-License-Identifier: MIT
// One measurement on an adapter, on a thread of its own, that shows its figures while it goes on.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "host/base/result.h"
#include "host/measure/capture/capture_source.h"
#include "host/measure/capture/group_membership.h"
#include "host/measure/figures/measurement.h"
#include "host/measure/results/summary.h"
#include "host/serve/event_feed.h"
#include "host/serve/meter_order.h"

namespace ipplay::serve {

enum class MeterState { kRunning, kEnded, kFailed };
std::string_view NameOf(MeterState state);

// What was open before the meter began, by a thread with the right to capture.
struct MeterSource {
  measure::CaptureSource frames;
  measure::GroupMembership membership;
};
Result<MeterSource> OpenMeterSource(const MeterOrder& order);

// Any thread may call any function.
class Meter {
 public:
  // As it stood a second ago at most.
  struct Figures {
    MeterState state = MeterState::kRunning;
    std::int64_t started_ns = 0;  // since 1970
    std::optional<std::int64_t> ended_ns{};
    std::string last_error{};
    std::shared_ptr<const measure::Summary> summary{};  // null until the first second is over
    std::map<std::uint32_t, measure::StreamSecond> seconds{};  // the last one of each stream
  };

  // Measures at once; `feed` outlives it.
  Meter(MeterOrder order, MeterSource source, EventFeed& feed);
  Meter(const Meter&) = delete;
  Meter& operator=(const Meter&) = delete;
  ~Meter();

  const MeterOrder& Order() const { return order_; }
  Figures Read() const;
  // Ends it, with its last figures.
  void Stop();
  // The page of results; none while it goes on.
  std::optional<std::string> Report() const;

 private:
  class Rows;

  void Run();
  // Until a stop, or with why it broke off.
  std::string TakeFrames(Rows& rows);
  void TakeDrops();
  void Publish();
  void Conclude(const std::string& error);

  const MeterOrder order_;
  EventFeed& feed_;
  std::atomic<bool> stops_{false};

  // Of the measuring thread; of all, once it has ended.
  MeterSource source_;
  measure::Measurement measurement_;
  measure::CaptureDrops drops_;

  mutable std::mutex mutex_;  // guards figures_
  Figures figures_;
  std::mutex stop_mutex_;  // one at a time joins
  std::thread thread_;
};

}  // namespace ipplay::serve
