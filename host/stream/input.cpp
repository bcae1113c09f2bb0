// SPDX-License-Identifier: MIT
#include "host/stream/input.h"

#include <algorithm>
#include <cstring>

namespace ipplay {

std::size_t Input::Read(std::span<std::uint8_t> buffer) {
  if (unread_taken_ < unread_.size()) {
    const std::size_t count = std::min(buffer.size(), unread_.size() - unread_taken_);
    std::memcpy(buffer.data(), unread_.data() + unread_taken_, count);
    unread_taken_ += count;
    return count;
  }
  unread_ = {};
  unread_taken_ = 0;
  const std::size_t count = source_->Read(buffer);
  for (const Arrival& arrival : source_->Arrivals()) {
    if (arrivals_.empty() || arrival.offset > arrivals_.back().offset) {
      arrivals_.push_back(arrival);
    }
  }
  return count;
}

std::size_t Input::ReadFully(std::span<std::uint8_t> buffer) {
  std::size_t filled = 0;
  while (filled < buffer.size()) {
    const std::size_t count = Read(buffer.subspan(filled));
    if (count == 0) {
      break;
    }
    filled += count;
  }
  return filled;
}

void Input::Unread(std::vector<std::uint8_t> bytes) {
  bytes.insert(bytes.end(), unread_.begin() + static_cast<std::ptrdiff_t>(unread_taken_),
               unread_.end());
  unread_ = std::move(bytes);
  unread_taken_ = 0;
}

void Input::Seek(std::uint64_t offset) {
  unread_ = {};
  unread_taken_ = 0;
  arrivals_.clear();
  source_->Seek(offset);
}

std::deque<Arrival>::const_iterator Input::Behind(std::uint64_t offset) const {
  return std::upper_bound(
      arrivals_.begin(), arrivals_.end(), offset,
      [](std::uint64_t wanted, const Arrival& arrival) { return wanted < arrival.offset; });
}

std::optional<Arrival> Input::ArrivalOf(std::uint64_t offset) const {
  const auto next = Behind(offset);
  return next == arrivals_.begin() ? std::nullopt : std::optional(*std::prev(next));
}

std::optional<std::uint64_t> Input::NextArrival(std::uint64_t offset) const {
  const auto next = Behind(offset);
  return next == arrivals_.end() ? std::nullopt : std::optional(next->offset);
}

void Input::ForgetArrivalsBefore(std::uint64_t offset) {
  while (arrivals_.size() > 1 && arrivals_[1].offset <= offset) {
    arrivals_.pop_front();
  }
}

}  // namespace ipplay
