// SPDX-License-Identifier: MIT
#include "host/measure/figures/payload_compare.h"

#include <algorithm>
#include <cstring>

namespace ipplay::measure {
namespace {

using ByteSpan = std::span<const std::uint8_t>;

// No payload is longer, and files up to this length are searched without the index.
constexpr std::size_t kSeamBytes = 64 * 1024;
// After so many comparisons without a result a payload counts as one of too many places. A search
// ahead gives up much earlier, since it may come with each datagram.
constexpr std::size_t kMostTries = 4 * ExpectedContent::kMaxPlaces;
constexpr std::size_t kMostTriesAhead = 1024;

}  // namespace

ExpectedContent::ExpectedContent(std::shared_ptr<SteadyFile> file)
    : file_(std::move(file)), index_(*file_) {
  const std::size_t end_bytes = std::min<std::uint64_t>(Size(), kSeamBytes);
  seam_start_ = Size() - end_bytes;
  Copy(seam_start_, end_bytes + kSeamBytes, seam_);
}

void ExpectedContent::Copy(std::uint64_t position, std::size_t length,
                           std::vector<std::uint8_t>& bytes) const {
  while (length > 0) {
    const ByteSpan view = file_->View(position % Size());
    if (view.empty()) {
      return;
    }
    const ByteSpan part = view.first(std::min(view.size(), length));
    bytes.insert(bytes.end(), part.begin(), part.end());
    length -= part.size();
    position += part.size();
  }
}

std::size_t ExpectedContent::EqualBytes(ByteSpan payload, std::uint64_t position) const {
  std::size_t at = 0;
  while (at < payload.size()) {
    const ByteSpan rest = file_->View((position + at) % Size());
    if (rest.empty()) {
      return at;
    }
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

// The places where the payload goes beyond the file's end and on at its begin; in a short file all.
template <typename Visit>
void ExpectedContent::VisitSeam(ByteSpan payload, std::uint64_t from, std::uint64_t to,
                                Visit&& visit) const {
  if (payload.empty() || payload.size() > kSeamBytes || seam_.size() < kSeamBytes) {
    return;
  }
  const std::size_t end = seam_.size() - kSeamBytes;
  std::size_t at = seam_start_ == 0 ? 0 : end - std::min(end, payload.size() - 1);
  at = std::max<std::uint64_t>(at, from - std::min(from, seam_start_));
  const std::size_t stop = std::min<std::uint64_t>(end, to - std::min(to, seam_start_));
  while (at < stop) {
    const ByteSpan haystack = ByteSpan(seam_).subspan(at, stop - at + payload.size() - 1);
    const void* hit = ::memmem(haystack.data(), haystack.size(), payload.data(), payload.size());
    if (hit == nullptr) {
      return;
    }
    at += static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - haystack.data());
    if (!visit(seam_start_ + at)) {
      return;
    }
    ++at;
  }
}

const std::vector<std::uint64_t>& ExpectedContent::Places(ByteSpan payload) {
  if (!last_payload_.empty() && std::ranges::equal(payload, last_payload_)) {
    return last_places_;
  }
  last_payload_.assign(payload.begin(), payload.end());
  last_places_.clear();
  const auto take = [this](std::uint64_t place) {
    last_places_.push_back(place);
    return last_places_.size() <= kMaxPlaces;
  };
  std::size_t tries = 0;
  const auto look = [&](std::uint64_t place) {
    return ++tries <= kMostTries && last_places_.size() <= kMaxPlaces &&
           (!Matches(payload, place) || take(place));
  };
  VisitSeam(payload, 0, Size(), take);
  if (seam_start_ > 0 && payload.size() >= index_.ShortestPayload()) {
    index_.ForEach(payload, 0, Size() - std::min<std::uint64_t>(Size(), payload.size() - 1), look);
  }
  const bool too_short = seam_start_ > 0 && payload.size() < index_.ShortestPayload();
  if (too_short || tries > kMostTries || last_places_.size() > kMaxPlaces) {
    last_places_.resize(kMaxPlaces + 1);
  }
  std::ranges::sort(last_places_);
  return last_places_;
}

std::optional<std::uint64_t> ExpectedContent::FindFrom(ByteSpan payload, std::uint64_t position,
                                                       std::uint64_t distance) const {
  const std::uint64_t end = position + std::min<std::uint64_t>(distance, Size());
  std::size_t tries = 0;
  while (position < end) {
    const std::uint64_t from = position % Size();
    const std::uint64_t to = std::min(Size(), from + (end - position));
    std::uint64_t nearest = to;
    const auto take = [&](std::uint64_t place) {
      nearest = std::min(nearest, place);
      return false;
    };
    VisitSeam(payload, from, to, take);
    if (seam_start_ > 0 && payload.size() >= index_.ShortestPayload()) {
      const std::uint64_t last = Size() - std::min<std::uint64_t>(Size(), payload.size() - 1);
      index_.ForEach(payload, from, std::min(to, last), [&](std::uint64_t place) {
        return place < nearest && ++tries <= kMostTriesAhead &&
               (!Matches(payload, place) || take(place));
      });
    }
    if (nearest < to) {
      return position + (nearest - from);
    }
    position += to - from;
  }
  return std::nullopt;
}

void PayloadCompare::Add(ByteSpan payload, const Order& order) {
  if (!payload.empty() && !content_->IsBroken()) {
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
  const std::uint64_t size = content_->Size();
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
  if (content_->IsBroken()) {  // it is no difference of the stream's
    return;
  }
  ++different_;
  if (first_difference_) {
    return;
  }
  const std::size_t equal = content_->EqualBytes(payload, position);
  PayloadDifference difference;
  difference.datagram = datagrams_;
  difference.datagram_offset = equal;
  difference.file_offset = (position + equal) % content_->Size();
  const std::size_t shown = std::min(payload.size() - equal, kBytesShown);
  const ByteSpan received = payload.subspan(equal, shown);
  difference.received.assign(received.begin(), received.end());
  content_->Copy(difference.file_offset, shown, difference.expected);
  first_difference_ = std::move(difference);
}

}  // namespace ipplay::measure
