// SPDX-License-Identifier: MIT
// A fuzzer's bytes as what a fuzzer needs.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

// The bytes, taken one after the other; zeros when they have run out.
class FuzzInput {
 public:
  explicit FuzzInput(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  bool IsEmpty() const { return bytes_.empty(); }

  template <typename T = std::uint32_t>
  T Number(std::size_t size) {
    T number = 0;
    for (; size > 0; --size) {
      number = static_cast<T>((std::uint64_t{number} << 8) | Byte());
    }
    return number;
  }

  std::span<const std::uint8_t> Take(std::size_t size) {
    const auto taken = bytes_.first(std::min(size, bytes_.size()));
    bytes_ = bytes_.subspan(taken.size());
    return taken;
  }

  // `size` bytes, of which the fuzzer chooses 16 in one place and the rest repeats one.
  void Fill(std::uint8_t* to, std::size_t size) {
    std::memset(to, size > 16 ? Byte() : 0, size);
    const std::size_t at = size > 16 ? Number(2) % (size - 15) : 0;
    for (std::size_t i = at; i < std::min(size, at + 16); ++i) {
      to[i] = Byte();
    }
  }

 private:
  std::uint8_t Byte() {
    const auto taken = Take(1);
    return taken.empty() ? std::uint8_t{0} : taken.front();
  }

  std::span<const std::uint8_t> bytes_;
};
