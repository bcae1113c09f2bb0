// SPDX-License-Identifier: MIT
#include "host/play/word_writer.h"

#include <algorithm>
#include <utility>

namespace ipplay {

namespace {
constexpr std::size_t kUnit = 4;
constexpr std::size_t kMaxUnits = 65535;
}  // namespace

WordWriter::WriteWords WordWriter::Into(std::function<bool(std::span<const std::uint8_t>)> write) {
  return [write = std::move(write)](const void* data, std::uint16_t units) {
    return write({static_cast<const std::uint8_t*>(data), units * kUnit}) ? 0 : 1;
  };
}

std::span<const std::uint8_t> WordWriter::CompleteCarry(std::span<const std::uint8_t> bytes) {
  if (carried_ == 0) {
    return bytes;
  }
  const std::size_t count = std::min(kUnit - carried_, bytes.size());
  std::copy_n(bytes.begin(), count, carry_.begin() + static_cast<std::ptrdiff_t>(carried_));
  carried_ += count;
  if (carried_ == kUnit) {
    refused_ = refused_ || write_(carry_.data(), 1) != 0;
    carried_ = 0;
  }
  return bytes.subspan(count);
}

bool WordWriter::Write(std::span<const std::uint8_t> bytes) {
  bytes = CompleteCarry(bytes);
  while (!refused_ && bytes.size() >= kUnit) {
    const std::size_t units = std::min(bytes.size() / kUnit, kMaxUnits);
    refused_ = write_(bytes.data(), static_cast<std::uint16_t>(units)) != 0;
    bytes = bytes.subspan(units * kUnit);
  }
  if (refused_) {
    return false;
  }
  if (!bytes.empty()) {
    std::copy(bytes.begin(), bytes.end(), carry_.begin());
    carried_ = bytes.size();
  }
  return true;
}

bool WordWriter::Finish() {
  if (carried_ == 0) {
    return !refused_;
  }
  padding_ = static_cast<unsigned>(kUnit - carried_);
  constexpr std::array<std::uint8_t, kUnit> kZeros{};
  return Write(std::span(kZeros).first(padding_));
}

}  // namespace ipplay
