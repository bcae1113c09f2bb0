// SPDX-License-Identifier: MIT
// The buffer in which an outgoing Ethernet frame is assembled in place.
//
//   offset 0                14 [18]      34..58       42..66        54..78
//   | Ethernet II | 802.1Q | IPv4 / IPv6 | UDP       | RTP         | payload |
//
// Headers and pieces kept for later (templates, held-back frames) are PDUs too.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "protocol/big_endian.h"

namespace ipplayout {

// All offsets are in bytes from the first byte of the frame. Every write overwrites in place and
// must lie inside the current length; none inserts or changes the length.
class PDU {
 public:
  PDU() = default;
  explicit PDU(std::uint32_t length) : bytes_(length) {}
  PDU(const std::uint8_t* data, std::uint32_t length) : bytes_(data, data + length) {}
  PDU(const PDU&) = default;
  PDU(PDU&&) = default;
  PDU& operator=(const PDU&) = default;
  PDU& operator=(PDU&&) = default;
  virtual ~PDU() = default;

  std::uint32_t Length() const { return static_cast<std::uint32_t>(bytes_.size()); }

  // Cuts the tail off, or appends zero bytes.
  void SetLength(std::uint32_t length) { bytes_.resize(length); }

  // Null when empty.
  std::uint8_t* Data() { return bytes_.empty() ? nullptr : bytes_.data(); }
  const std::uint8_t* Data() const { return bytes_.empty() ? nullptr : bytes_.data(); }

  void WriteByte(std::uint8_t value, std::uint32_t offset) { bytes_[offset] = value; }
  void WriteU16(std::uint16_t value, std::uint32_t offset) {
    StoreBigEndian<2>(value, bytes_.data() + offset);
  }
  void WriteU32(std::uint32_t value, std::uint32_t offset) {
    StoreBigEndian<4>(value, bytes_.data() + offset);
  }
  void WriteBytes(const std::uint8_t* source, std::uint32_t count, std::uint32_t offset) {
    if (count != 0) {
      std::memcpy(bytes_.data() + offset, source, count);
    }
  }
  void WritePdu(const PDU& source, std::uint32_t offset) {
    WriteBytes(source.Data(), source.Length(), offset);
  }

 private:
  std::vector<std::uint8_t> bytes_;
};

}  // namespace ipplayout
