// SPDX-License-Identifier: MIT
#include "host/stream/packet_reader.h"

#include <algorithm>
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

PacketReader::PacketReader(Input& input, PacketFormat format, std::uint64_t offset,
                           std::optional<std::uint64_t> end)
    : input_(input),
      format_(format),
      sync_(format, !input.Size()),
      offset_(offset),
      read_to_(offset),
      end_(end),
      block_(BlockBytes(format)) {}

std::span<std::uint8_t> PacketReader::Next() {
  while (true) {
    const auto bytes = std::span(block_).first(filled_).subspan(taken_);
    const auto run =
        format_.IsRaw() ? PacketSync::Run{0, bytes.size()} : sync_.Find(bytes, at_end_);
    Skip(run.skipped);
    if (run.bytes > 0) {
      skipping_ = false;
      taken_ += run.bytes;
      offset_ += run.bytes;
      return bytes.subspan(run.skipped, run.bytes);
    }
    if (run.skipped > 0) {
      continue;
    }
    if (at_end_) {
      return {};
    }
    Fill();
  }
}

void PacketReader::Skip(std::size_t count) {
  if (count == 0) {
    return;
  }
  if (damage_.places == 0) {
    damage_.first = offset_;
  }
  damage_.places += skipping_ ? 0 : 1;
  damage_.bytes += count;
  skipping_ = true;
  taken_ += count;
  offset_ += count;
}

void PacketReader::Fill() {
  std::memmove(block_.data(), block_.data() + taken_, filled_ - taken_);
  filled_ -= taken_;
  taken_ = 0;
  std::uint64_t room = block_.size() - filled_;
  // A file may have grown since it was examined.
  if (end_) {
    room = std::min(room, *end_ - read_to_);
  }
  const std::size_t count = room == 0 ? 0 : input_.Read(std::span(block_).subspan(filled_, room));
  at_end_ = count == 0;
  filled_ += count;
  read_to_ += count;
}

}  // namespace ipplay
