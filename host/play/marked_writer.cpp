// SPDX-License-Identifier: MIT
#include "host/play/marked_writer.h"

#include <algorithm>

namespace ipplay {
namespace {

// At 100 Mb/s this is more than half a second.
constexpr std::size_t kMostHeld = std::size_t{8} << 20;

}  // namespace

bool MarkedWriter::Write(std::span<const std::uint8_t> bytes) {
  held_.insert(held_.end(), bytes.begin(), bytes.end());
  const std::size_t unit = format_.packet_bytes;
  std::size_t known = 0;  // before the last mark
  while (looked_at_ + unit <= held_.size()) {
    if (const auto time = marks_.Add(held_.data() + looked_at_ + format_.SyncOffset())) {
      // A mark that is refused, at a clock that stands still, leaves the line before it.
      playout_.Mark(written_ + looked_at_, *time);
      known = looked_at_;
    }
    looked_at_ += unit;
  }
  if (held_.size() > kMostHeld) {
    known = looked_at_;
  }
  return WriteUpTo(known);
}

bool MarkedWriter::WriteUpTo(std::size_t end) {
  if (end == 0) {
    return true;
  }
  const bool taken = playout_.Write(std::span(held_).first(end));
  held_.erase(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(end));
  looked_at_ -= std::min(looked_at_, end);
  written_ += end;
  return taken;
}

void MarkedWriter::Finish() {
  WriteUpTo(held_.size());
  playout_.End();
}

}  // namespace ipplay
