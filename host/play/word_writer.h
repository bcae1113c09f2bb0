// SPDX-License-Identifier: MIT
// Passes any number of bytes to a writer of 4-byte units, which takes at most 65,535 at a time.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>

namespace ipplay {

class WordWriter {
 public:
  // `write(data, units)` returns 0 on success; data needs no alignment.
  using WriteWords = std::function<int(const void* data, std::uint16_t units)>;

  // Writes whole units by a function that takes bytes and says whether it could.
  static WriteWords Into(std::function<bool(std::span<const std::uint8_t>)> write);

  explicit WordWriter(WriteWords write) : write_(std::move(write)) {}

  // Keeps up to 3 bytes for the next call. False once a write has failed.
  bool Write(std::span<const std::uint8_t> bytes);
  // Pads the kept bytes with zeros to a unit and writes it. False if that fails.
  bool Finish();
  // Zero bytes that Finish() added: 0 to 3. Packets of 188, 192 and 204 bytes never need any.
  unsigned Padding() const { return padding_; }

 private:
  std::span<const std::uint8_t> CompleteCarry(std::span<const std::uint8_t> bytes);

  WriteWords write_;
  std::array<std::uint8_t, 4> carry_{};
  std::size_t carried_ = 0;
  unsigned padding_ = 0;
  bool refused_ = false;
};

}  // namespace ipplay
