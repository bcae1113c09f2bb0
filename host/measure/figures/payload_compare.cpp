// SPDX-License-Identifier: MIT
#include "host/measure/figures/payload_compare.h"

#include <algorithm>
#include <cstring>

namespace ipplay::measure {
namespace {

using ByteSpan = std::span<const std::uint8_t>;

// Enough to make a chance hit rare, and short enough to be found before the file's end.
constexpr std::size_t kSearchedBytes = 32;

std::optional<std::size_t> Find(ByteSpan haystack, ByteSpan needle, std::size_t from) {
  if (from >= haystack.size()) {
    return std::nullopt;
  }
  const void* hit =
      ::memmem(haystack.data() + from, haystack.size() - from, needle.data(), needle.size());
  if (hit == nullptr) {
    return std::nullopt;
  }
  return static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - haystack.data());
}

}  // namespace

std::size_t ExpectedContent::EqualBytes(ByteSpan payload, std::uint64_t position) const {
  std::size_t at = 0;
  while (at < payload.size()) {
    const ByteSpan rest = Bytes().subspan((position + at) % Bytes().size());
    const std::size_t length = std::min(rest.size(), payload.size() - at);
    const ByteSpan part = payload.subspan(at, length);
    if (std::memcmp(part.data(), rest.data(), length) != 0) {
      const auto differ = std::mismatch(part.begin(), part.end(), rest.begin());
      return at + static_cast<std::size_t>(differ.first - part.begin());
    }
    at += length;
  }
  return at;
}

const std::vector<std::uint64_t>& ExpectedContent::Places(ByteSpan payload) {
  if (std::ranges::equal(payload, last_payload_)) {
    return last_places_;
  }
  last_payload_.assign(payload.begin(), payload.end());
  last_places_.clear();
  const ByteSpan file = Bytes();
  const ByteSpan head = payload.first(std::min(payload.size(), kSearchedBytes));
  std::size_t from = 0;
  for (auto hit = Find(file, head, from); hit && last_places_.size() <= kMaxPlaces;
       hit = Find(file, head, from)) {
    if (Matches(payload, *hit)) {
      last_places_.push_back(*hit);
    }
    from = *hit + 1;
  }
  // In the last few bytes even the head goes on at the file's begin.
  for (std::size_t at = file.size() - std::min(file.size(), head.size() - 1); at < file.size();
       ++at) {
    if (at >= from && Matches(payload, at)) {
      last_places_.push_back(at);
    }
  }
  return last_places_;
}

std::optional<std::uint64_t> ExpectedContent::FindFrom(ByteSpan payload, std::uint64_t position,
                                                       std::uint64_t distance) const {
  const ByteSpan file = Bytes();
  const ByteSpan head = payload.first(std::min(payload.size(), kSearchedBytes));
  const std::uint64_t end = position + std::min<std::uint64_t>(distance, file.size());
  while (position < end) {
    const std::size_t in_file = position % file.size();
    const std::size_t reach = std::min<std::uint64_t>(file.size(), in_file + (end - position));
    const auto hit = Find(file.first(reach), head, in_file);
    if (hit && Matches(payload, *hit)) {
      return position + (*hit - in_file);
    }
    position += hit ? *hit - in_file + 1 : reach - in_file;
  }
  return std::nullopt;
}

void PayloadCompare::Add(ByteSpan payload, const Order& order) {
  if (!payload.empty()) {
    if (order.restarted) {
      candidates_.clear();
    }
    if (candidates_.empty()) {
      Join(payload);
    } else if (order.late) {
      CompareLate(payload, order.behind);
    } else {
      CompareNext(payload, order);
    }
  }
  ++datagrams_;
}

void PayloadCompare::Join(ByteSpan payload) {
  const auto& places = content_->Places(payload);
  if (places.size() > ExpectedContent::kMaxPlaces) {
    ++unplaced_;
    return;
  }
  if (places.empty()) {
    NoteDifference(payload, 0);
    return;
  }
  ++equal_;
  candidates_ = places;
  for (std::uint64_t& place : candidates_) {
    place += payload.size();
  }
  last_length_ = payload.size();
}

void PayloadCompare::CompareLate(ByteSpan payload, std::uint64_t behind) {
  const std::uint64_t size = content_->Bytes().size();
  const std::uint64_t back = (behind + 1) * last_length_ % size;
  const auto matches = [&](std::uint64_t next) {
    return content_->Matches(payload, next + size - back);
  };
  if (std::ranges::any_of(candidates_, matches)) {
    ++equal_;
  } else {
    NoteDifference(payload, candidates_.front() + size - back);
  }
}

void PayloadCompare::CompareNext(ByteSpan payload, const Order& order) {
  for (std::uint64_t& place : candidates_) {
    place += order.missing * last_length_;
  }
  if (NarrowDown(payload)) {
    ++equal_;
  } else if (const auto found = order.numbered ? std::nullopt
                                               : content_->FindFrom(payload, candidates_.front(),
                                                                    kResyncDistance)) {
    ++equal_;
    skipped_ += *found - candidates_.front();
    candidates_.assign(1, *found);
  } else {
    NoteDifference(payload, candidates_.front());
  }
  for (std::uint64_t& place : candidates_) {
    place += payload.size();
  }
  last_length_ = payload.size();
}

bool PayloadCompare::NarrowDown(ByteSpan payload) {
  if (candidates_.size() == 1) {
    return content_->Matches(payload, candidates_.front());
  }
  std::vector<std::uint64_t> matching;
  for (const std::uint64_t place : candidates_) {
    if (content_->Matches(payload, place)) {
      matching.push_back(place);
    }
  }
  if (matching.empty()) {
    return false;
  }
  candidates_ = std::move(matching);
  return true;
}

void PayloadCompare::NoteDifference(ByteSpan payload, std::uint64_t position) {
  ++different_;
  if (first_difference_) {
    return;
  }
  const ByteSpan file = content_->Bytes();
  const std::size_t equal = content_->EqualBytes(payload, position);
  PayloadDifference difference;
  difference.datagram = datagrams_;
  difference.datagram_offset = equal;
  difference.file_offset = (position + equal) % file.size();
  const std::size_t shown = std::min(payload.size() - equal, kBytesShown);
  for (std::size_t i = 0; i < shown; ++i) {
    difference.received.push_back(payload[equal + i]);
    difference.expected.push_back(file[(difference.file_offset + i) % file.size()]);
  }
  first_difference_ = std::move(difference);
}

}  // namespace ipplay::measure
