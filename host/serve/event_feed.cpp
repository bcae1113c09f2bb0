// SPDX-License-Identifier: MIT
#include "host/serve/event_feed.h"

#include <fmt/format.h>

#include <utility>

#include "host/base/json.h"
#include "host/base/numbers.h"
#include "host/base/wall_clock.h"

namespace ipplay::serve {

std::string EventFeed::Text(std::uint64_t number, std::string_view name, const Json& event) const {
  return fmt::format("id: {}-{}\nevent: {}\ndata: {}\n\n", epoch_, number, name, TextOf(event));
}

void EventFeed::OnAppend(std::function<void()> on_append) {
  const std::lock_guard lock(mutex_);
  on_append_ = std::move(on_append);
}

void EventFeed::Append(std::string_view name, Json event) {
  Json whole{{"event", name}};
  if (!event.contains("time_ns")) {
    whole["time_ns"] = WallClockNow().count();
  }
  whole.update(event);
  const std::lock_guard lock(mutex_);
  events_.push_back(Text(first_ + events_.size(), name, whole));
  bytes_ += events_.back().size();
  while (bytes_ > most_bytes_ && events_.size() > 1) {
    bytes_ -= events_.front().size();
    events_.pop_front();
    ++first_;
  }
  if (on_append_) {
    on_append_();
  }
}

std::uint64_t EventFeed::End() const {
  const std::lock_guard lock(mutex_);
  return first_ + events_.size();
}

std::uint64_t EventFeed::After(std::string_view id) const {
  const std::lock_guard lock(mutex_);
  const std::uint64_t end = first_ + events_.size();
  if (id.empty()) {
    return end;
  }
  if (id == "0") {
    return first_;
  }
  const std::string epoch = fmt::format("{}-", epoch_);
  const auto number =
      id.starts_with(epoch) ? ParseNumber(id.substr(epoch.size()), 0, end - 1) : std::nullopt;
  return number ? *number + 1 : kUnknown;
}

EventFeed::Chunk EventFeed::Read(std::uint64_t from, std::size_t most_bytes) const {
  const std::lock_guard lock(mutex_);
  const std::uint64_t end = first_ + events_.size();
  Chunk chunk{"", from};
  if (from == kUnknown || from < first_) {
    const bool is_known = from != kUnknown;
    chunk.next = is_known ? first_ : end;
    chunk.text = Text(chunk.next - 1, "lost",
                      {{"event", "lost"},
                       {"time_ns", WallClockNow().count()},
                       {"lost", is_known ? first_ - from : 0}});
  }
  while (chunk.next < end) {
    const std::string& event = events_[chunk.next - first_];
    if (!chunk.text.empty() && chunk.text.size() + event.size() > most_bytes) {
      break;
    }
    chunk.text += event;
    ++chunk.next;
  }
  return chunk;
}

}  // namespace ipplay::serve
