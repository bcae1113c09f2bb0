// SPDX-License-Identifier: MIT
// What happens, for any number of readers at their own pace: events as server-sent events have them
// (HTML, 9.2), the last ones of them kept within a bound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "host/serve/http_message.h"

namespace ipplay::serve {

// Any thread may call any function.
class EventFeed {
 public:
  static constexpr std::size_t kMostBytes = std::size_t{16} << 20;

  // Ids of other feeds, as of the program before it was started anew, begin with another `epoch`.
  explicit EventFeed(std::int64_t epoch, std::size_t most_bytes = kMostBytes)
      : epoch_(epoch), most_bytes_(most_bytes) {}

  // Called after each event, on its thread, under the feed's lock: returns soon and does not ask
  // it.
  void OnAppend(std::function<void()> on_append);

  // `event` gets the fields "event" and "time_ns", the present, in front where it has none.
  void Append(std::string_view name, Json event);

  // The number of the next event.
  std::uint64_t End() const;
  // The number behind the event with this id. Events of another feed are not known: what comes next
  // then is that some were lost. Empty: End(); "0": the first that is still there.
  std::uint64_t After(std::string_view id) const;

  struct Chunk {
    std::string text;
    std::uint64_t next = 0;
  };
  // Events from number `from` on: none, or at least one and as many as `most_bytes` hold. What is
  // no longer there is one event "lost" with their number.
  Chunk Read(std::uint64_t from, std::size_t most_bytes) const;

 private:
  static constexpr std::uint64_t kUnknown = UINT64_MAX;

  std::string Text(std::uint64_t number, std::string_view name, const Json& event) const;

  const std::int64_t epoch_;
  const std::size_t most_bytes_;
  mutable std::mutex mutex_;  // guards what follows
  std::function<void()> on_append_;
  std::deque<std::string> events_;
  std::uint64_t first_ = 1;  // number of the first one
  std::size_t bytes_ = 0;
};

}  // namespace ipplay::serve
