// SPDX-License-Identifier: MIT
#include "host/stream/round_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ipplay {
namespace {

// Large enough to be cheap, small enough for a quick stop between two blocks.
constexpr std::size_t kPacketsAtOnce = 350;
constexpr std::size_t kRawBytesAtOnce = 65536;

std::size_t BlockBytes(PacketFormat format) {
  return format.IsRaw() ? kRawBytesAtOnce : kPacketsAtOnce * format.packet_bytes;
}

}  // namespace

RoundReader::RoundReader(Input input, const StreamFacts& facts)
    : input_(std::move(input)),
      format_(facts.format),
      first_packet_(facts.first_packet),
      round_bytes_(facts.bytes),
      block_(BlockBytes(facts.format)) {}

std::span<std::uint8_t> RoundReader::Next() {
  const std::size_t unit = format_.IsRaw() ? 1 : format_.packet_bytes;
  std::memmove(block_.data(), block_.data() + taken_, filled_ - taken_);
  filled_ -= taken_;
  taken_ = 0;
  while (filled_ < unit) {
    std::uint64_t room = block_.size() - filled_;
    // A file may have grown since it was examined.
    if (round_bytes_) {
      room = std::min(room, *round_bytes_ - delivered_);
    }
    const std::size_t count = room == 0 ? 0 : input_.Read(std::span(block_).subspan(filled_, room));
    if (count == 0) {
      if (room > 0 && round_bytes_ && input_.ReadError() == 0) {
        cut_short_ = true;
      }
      return {};
    }
    filled_ += count;
    delivered_ += count;
  }
  taken_ = filled_ / unit * unit;
  const auto packets = std::span(block_).first(taken_);
  if (!format_.IsRaw()) {
    CheckSync(packets);
  }
  return packets;
}

void RoundReader::StartNextRound() {
  input_.Seek(first_packet_);
  delivered_ = 0;
  filled_ = taken_ = 0;
}

void RoundReader::CheckSync(std::span<const std::uint8_t> packets) {
  if (sync_lost_.load(std::memory_order_relaxed) != kNever) {
    return;
  }
  for (std::size_t at = format_.SyncOffset(); at < packets.size(); at += format_.packet_bytes) {
    if (packets[at] == 0x47) {
      continue;
    }
    sync_lost_.store(first_packet_ + delivered_ - filled_ + at, std::memory_order_relaxed);
    return;
  }
}

int RoundReader::ReadError() const {
  return cut_short_ ? ENODATA : input_.ReadError();
}

std::optional<std::uint64_t> RoundReader::SyncLost() const {
  const std::uint64_t offset = sync_lost_.load(std::memory_order_relaxed);
  return offset == kNever ? std::nullopt : std::optional(offset);
}

}  // namespace ipplay
