// SPDX-License-Identifier: MIT
#include "host/stream/datagram_stream.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "host/base/units.h"
#include "host/measure/figures/rtp_header.h"

namespace ipplay {
namespace {

constexpr std::uint8_t kRtpVersion = 2;

std::optional<measure::RtpHeader> RtpOf(std::span<const std::uint8_t> datagram,
                                        std::size_t length) {
  const auto rtp = measure::ParseRtpHeader(datagram, length);
  return rtp && rtp->version == kRtpVersion ? rtp : std::nullopt;
}

}  // namespace

void RtpGuess::Add(std::span<const std::uint8_t> datagram, std::size_t length) {
  constexpr int kNear = 32;
  const auto rtp = RtpOf(datagram, length);
  const bool first = datagrams_++ == 0;
  if (!rtp) {
    return;
  }
  const int step = static_cast<std::int16_t>(rtp->sequence_number - last_);
  if (first || (rtp->ssrc == ssrc_ && std::abs(step) <= kNear)) {
    ++in_row_;
  }
  ssrc_ = rtp->ssrc;
  last_ = rtp->sequence_number;
}

DatagramStream::DatagramStream(bool rtp)
    : sequence_(rtp ? std::make_unique<measure::RtpSequence>() : nullptr),
      window_([this](const measure::ReorderWindow::Payload& payload, bool) {
        AddPayload(payload.bytes, payload.arrival_ns, MissingBefore(payload.number));
      }) {
  facts_.is_numbered = rtp;
}

DatagramStream::~DatagramStream() = default;

void DatagramStream::Add(std::span<const std::uint8_t> datagram, std::int64_t arrival_ns) {
  new_from_ = start_ + bytes_.size();
  if (sequence_ == nullptr) {
    AddPayload(datagram, arrival_ns, 0);
    return;
  }
  const auto rtp = RtpOf(datagram, datagram.size());
  if (!rtp) {
    ++without_rtp_;
    return;
  }
  const auto payload =
      datagram.subspan(rtp->header_length, datagram.size() - rtp->header_length - rtp->padding);
  const auto result = sequence_->Add(rtp->sequence_number, rtp->timestamp);
  if (result.event == measure::SequenceEvent::kStray) {
    stray_ = rtp->sequence_number;
  }
  window_.Add(rtp->sequence_number, result.event, {payload, arrival_ns});
  stray_.reset();
}

// Between two numberings nothing is known to be missing.
std::uint32_t DatagramStream::MissingBefore(std::uint16_t number) {
  if (number == stray_) {
    last_number_.reset();
    return 0;
  }
  const auto missing = last_number_ ? static_cast<std::uint16_t>(number - *last_number_ - 1) : 0;
  last_number_ = number;
  return static_cast<std::uint32_t>(missing);
}

void DatagramStream::Flush() {
  window_.Flush();
}

void DatagramStream::AddPayload(std::span<const std::uint8_t> payload, std::int64_t arrival_ns,
                                std::uint32_t missing) {
  if (payload.empty()) {
    return;
  }
  DropTaken();
  for (auto late = arrivals_.rbegin();
       late != arrivals_.rend() && late->offset >= new_from_ && late->time_ns > arrival_ns;
       ++late) {
    late->time_ns = arrival_ns;
  }
  arrivals_.push_back({start_ + bytes_.size(), arrival_ns, missing});
  bytes_.insert(bytes_.end(), payload.begin(), payload.end());
  Count(payload.size(), arrival_ns, missing);
}

void DatagramStream::Count(std::size_t bytes, std::int64_t arrival_ns, std::uint32_t missing) {
  if (facts_.count++ == 0) {
    facts_.first_bytes = static_cast<std::uint32_t>(bytes);
    facts_.first_ns = arrival_ns;
    facts_.are_alike = true;
  }
  facts_.bytes += bytes;
  facts_.are_alike = facts_.are_alike && !last_differs_;
  last_differs_ = bytes != facts_.first_bytes;
  facts_.last_ns = std::max(facts_.last_ns, arrival_ns);
  facts_.missing += missing;
}

// Seldom enough to be cheap where some bytes always wait.
void DatagramStream::DropTaken() {
  constexpr std::size_t kEnough = 65536;
  if (HasBytes() && (taken_ < kEnough || 2 * taken_ < bytes_.size())) {
    return;
  }
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(taken_));
  start_ += taken_;
  taken_ = 0;
  const auto next =
      std::find_if(arrivals_.begin(), arrivals_.end(),
                   [this](const Arrival& arrival) { return arrival.offset > start_; });
  if (next != arrivals_.begin()) {
    arrivals_.erase(arrivals_.begin(), bytes_.empty() ? next : std::prev(next));
  }
}

std::size_t DatagramStream::Take(std::span<std::uint8_t> buffer) {
  const std::size_t count = std::min(buffer.size(), bytes_.size() - taken_);
  std::memcpy(buffer.data(), bytes_.data() + taken_, count);
  const std::uint64_t from = start_ + taken_;
  const auto before = [](std::uint64_t offset, const Arrival& arrival) {
    return offset < arrival.offset;
  };
  auto first = std::upper_bound(arrivals_.begin(), arrivals_.end(), from, before);
  const auto last = std::upper_bound(first, arrivals_.end(), from + count - 1, before);
  if (first != arrivals_.begin()) {
    --first;
  }
  taken_arrivals_.assign(first, count == 0 ? first : last);
  taken_ += count;
  return count;
}

std::vector<std::string> DatagramStream::Notes() const {
  std::vector<std::string> notes;
  const auto note = [&notes](std::uint64_t count, std::string_view one, std::string_view more) {
    if (count > 0) {
      notes.push_back(fmt::format("INPUT: {} {}", FormatCount(count), count == 1 ? one : more));
    }
  };
  note(without_rtp_, "datagram without an RTP header is left out",
       "datagrams without an RTP header are left out");
  if (sequence_ != nullptr) {
    note(sequence_->Lost(), "RTP packet is missing", "RTP packets are missing");
    note(window_.Repaired(), "RTP packet came late and was put in order",
         "RTP packets came late and were put in order");
    note(sequence_->Duplicates(), "RTP packet came twice and is left out the second time",
         "RTP packets came twice and are left out the second time");
  }
  return notes;
}

}  // namespace ipplay
