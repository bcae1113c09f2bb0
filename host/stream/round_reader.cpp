// SPDX-License-Identifier: MIT
#include "host/stream/round_reader.h"

#include <fmt/format.h>

#include <cerrno>

namespace ipplay {

RoundReader::RoundReader(Input input, const StreamFacts& facts)
    : input_(std::move(input)),
      format_(facts.format),
      first_packet_(facts.first_packet),
      end_(facts.end),
      order_(facts.filter) {
  if (facts.window) {
    window_.emplace(format_, *facts.window, std::nullopt);
  }
  StartReading();
}

// Every round knows as little of the tables as the first one at its start.
void RoundReader::StartReading() {
  reader_.emplace(input_, format_, first_packet_, end_);
  filter_.emplace(format_, order_);
}

std::span<std::uint8_t> RoundReader::Next() {
  auto packets = reader_->Next();
  auto inside = packets;
  while (window_ && !packets.empty()) {
    inside = window_->Pass(packets);
    if (!inside.empty() || window_->IsOver()) {
      break;
    }
    packets = inside = reader_->Next();
  }
  if (packets.empty() && !input_.Size() && !input_.IsStopped()) {
    trailing_bytes_ = reader_->TrailingBytes();
  }
  offset_ = reader_->Offset() - packets.size() +
            static_cast<std::uint64_t>(inside.data() - packets.data());
  input_.ForgetArrivalsBefore(offset_);
  filter_->Filter(inside);
  return inside;
}

std::vector<std::string> RoundReader::Notes() const {
  auto notes = input_.Notes();
  if (trailing_bytes_ > 0) {
    notes.push_back(fmt::format("{} bytes after the last whole transport packet are left out",
                                trailing_bytes_));
  }
  return notes;
}

void RoundReader::StartNextRound() {
  if (!first_round_damage_) {
    first_round_damage_ = reader_->Damaged();
  }
  input_.Seek(first_packet_);
  StartReading();
}

int RoundReader::ReadError() const {
  return input_.ReadError() == 0 && reader_->IsCutShort() ? ENODATA : input_.ReadError();
}

}  // namespace ipplay
