// SPDX-License-Identifier: MIT
#include "payload/fec_feed.h"

#include <utility>

namespace ipplayout {

FecFeed::FecFeed(const FecMatrix& matrix, std::uint32_t header_room, std::size_t longest_payload,
                 const std::array<FecPort, kKinds>& ports)
    : encoder_(matrix, longest_payload),
      header_room_(header_room),
      ports_(ports),
      frame_(header_room +
             static_cast<std::uint32_t>(FecEncoder::kHeaderLength + longest_payload)) {}

void FecFeed::AddMedia(const PDU& frame) {
  const std::uint32_t rtp = header_room_ - static_cast<std::uint32_t>(FecEncoder::kRtpHeaderLength);
  encoder_.Add({frame.Data() + rtp, frame.Length() - rtp});
  due_ = {encoder_.ColumnDue(), encoder_.RowDue()};
}

bool FecFeed::AtEnd() {
  const bool is_due = encoder_.Flush();
  due_ = {encoder_.ColumnDue(), encoder_.RowDue()};
  return is_due;
}

bool FecFeed::Next() {
  for (const Kind kind : {kColumn, kRow}) {
    const std::span<const std::uint8_t> bytes = std::exchange(due_[kind], {});
    if (!bytes.empty()) {
      which_ = kind;
      ++counts_[kind];
      frame_.SetLength(header_room_ + static_cast<std::uint32_t>(bytes.size()));
      frame_.WriteBytes(bytes.data(), static_cast<std::uint32_t>(bytes.size()), header_room_);
      return true;
    }
  }
  return false;
}

}  // namespace ipplayout
