// SPDX-License-Identifier: MIT
#include "host/measure/figures/ts_framer.h"

#include <algorithm>

namespace ipplay::measure {
namespace {

struct Format {
  std::size_t stride;
  std::size_t sync_at;
};
constexpr Format kFormats[] = {{188, 0}, {192, 4}, {204, 0}};
constexpr std::size_t kLongestStride = 204;

bool HasSyncBytes(std::span<const std::uint8_t> bytes, std::size_t start, const Format& format) {
  for (std::size_t i = 0; i < TsFramer::kPacketsToSync; ++i) {
    const std::size_t at = start + i * format.stride + format.sync_at;
    if (at >= bytes.size() || bytes[at] != kTsSyncByte) {
      return false;
    }
  }
  return true;
}

}  // namespace

void TsFramer::CheckSync(std::uint8_t byte) {
  if (byte == kTsSyncByte) {
    wrong_in_a_row_ = 0;
    return;
  }
  ++sync_byte_errors_;
  if (++wrong_in_a_row_ == kErrorsToLoseSync) {
    ++sync_losses_;
    stride_ = 0;
    wrong_in_a_row_ = 0;
  }
}

bool TsFramer::FindSync() {
  for (std::size_t start = 0; start < kept_.size(); ++start) {
    for (const Format& format : kFormats) {
      if (!HasSyncBytes(kept_, start, format)) {
        continue;
      }
      stride_ = format.stride;
      sync_at_ = format.sync_at;
      ever_synced_ = true;
      kept_.erase(kept_.begin(), kept_.begin() + static_cast<std::ptrdiff_t>(start));
      return true;
    }
  }
  // Five packets may have begun in the last bytes only.
  const std::size_t needed = std::min(kept_.size(), kPacketsToSync * kLongestStride);
  searched_ += kept_.size() - needed;
  kept_.erase(kept_.begin(), kept_.end() - static_cast<std::ptrdiff_t>(needed));
  return false;
}

}  // namespace ipplay::measure
