// SPDX-License-Identifier: MIT
#include "host/stream/round_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace ipplay {
namespace {

std::vector<RoundReader::Stream> Only(Input input, const StreamFacts& facts) {
  std::vector<RoundReader::Stream> streams;
  streams.push_back({std::move(input), facts});
  return streams;
}

Damage Sum(const Damage& first, const Damage& then) {
  return {first.bytes + then.bytes, first.places + then.places,
          first.places > 0 ? first.first : then.first};
}

}  // namespace

RoundReader::RoundReader(Input input, const StreamFacts& facts)
    : RoundReader(Only(std::move(input), facts)) {}

RoundReader::RoundReader(std::vector<Stream> streams) : streams_(std::move(streams)) {
  if (Now().facts.window) {
    window_.emplace(Format(), *Now().facts.window, std::nullopt);
  }
  StartReading();
}

// Every round knows as little of the tables as the first one at its start.
void RoundReader::StartReading() {
  const StreamFacts& facts = Now().facts;
  reader_.emplace(streams_[stream_].input, facts.format, facts.first_packet, facts.end);
  filter_.emplace(facts.format, facts.filter);
}

void RoundReader::DoWhileWaiting(const IdleWork& work) {
  for (Stream& stream : streams_) {
    stream.input.DoWhileWaiting(work);
  }
}

std::span<std::uint8_t> RoundReader::Next() {
  Input& input = streams_[stream_].input;
  auto packets = reader_->Next();
  auto inside = packets;
  while (window_ && !packets.empty()) {
    inside = window_->Pass(packets);
    if (!inside.empty() || window_->IsOver()) {
      break;
    }
    packets = inside = reader_->Next();
  }
  if (packets.empty() && !input.Size() && !input.IsStopped()) {
    trailing_bytes_ = reader_->TrailingBytes();
  }
  offset_ = reader_->Offset() - packets.size() +
            static_cast<std::uint64_t>(inside.data() - packets.data());
  input.ForgetArrivalsBefore(offset_);
  filter_->Filter(inside);
  return inside;
}

std::size_t RoundReader::SameArrival(std::size_t position, std::size_t end) const {
  const auto next = Now().input.NextArrival(offset_ + position);
  return static_cast<std::size_t>(std::min<std::uint64_t>(end, next ? *next - offset_ : end)) -
         position;
}

Damage RoundReader::Damaged() const {
  return first_round_ ? Sum(damage_, reader_->Damaged()) : damage_;
}

std::vector<std::string> RoundReader::Notes() const {
  auto notes = Now().input.Notes();
  if (trailing_bytes_ > 0) {
    notes.push_back(fmt::format("{} bytes after the last whole transport packet are left out",
                                trailing_bytes_));
  }
  return notes;
}

void RoundReader::StartNextRound() {
  damage_ = Damaged();
  stream_ = (stream_ + 1) % streams_.size();
  first_round_ = first_round_ && stream_ != 0;
  streams_[stream_].input.Seek(Now().facts.first_packet);
  StartReading();
}

int RoundReader::ReadError() const {
  const int error = Now().input.ReadError();
  return error == 0 && reader_->IsCutShort() ? ENODATA : error;
}

}  // namespace ipplay
