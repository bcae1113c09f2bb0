// SPDX-License-Identifier: MIT
// Events as lines of JSON while they happen, at a bounded rate. docs/json.md has the fields.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "host/measure/figures/event.h"
#include "host/measure/figures/stream_table.h"
#include "host/measure/results/run_info.h"

namespace ipplay::measure {

class EventLines : public EventSink {
 public:
  // So many lines of each kind in a second by the time of the events, so that one kind hides no
  // other.
  static constexpr std::uint64_t kMostOfAKind = 20;

  using Write = std::function<void(std::string_view line)>;

  // Both outlive this.
  EventLines(Write write, const StreamTable& streams)
      : write_(std::move(write)), streams_(streams) {}

  // Before the first event and after the last one.
  void Start(const RunInfo& run);
  void Finish(std::int64_t end_ns);

  // What is left out is said in a line of its own, in front of the next second's first event.
  void Report(const Event& event) override;

 private:
  void EndSecond();

  Write write_;
  const StreamTable& streams_;
  std::int64_t second_ = 0;
  std::array<std::uint64_t, kEventKinds> in_second_{};
  std::uint64_t events_ = 0;
  std::uint64_t left_out_ = 0;
};

}  // namespace ipplay::measure
