// SPDX-License-Identifier: MIT
// A received frame, as seen by whoever reads from an adapter.
#pragma once

#include <cstdint>
#include <vector>

namespace ipplayout {

class Packet {
 public:
  using Position = std::vector<std::uint8_t>::const_iterator;

  // First byte after the link-layer header.
  virtual Position PayloadBegin() const = 0;
  virtual const std::uint8_t* Payload() const = 0;
  // Frame size less the link-layer header, so negative for a frame that holds less than one.
  virtual std::int32_t PayloadLength() const = 0;
  // Capture time in nanoseconds since the epoch.
  virtual std::uint64_t ReceiveTime() const = 0;
  // Number of frames that the same interface received before this one.
  virtual std::uint64_t ReceiveIndex() const = 0;

 protected:
  ~Packet() = default;  // owned through the concrete type
};

// An Ethernet frame. Shared between its holders; the last one deletes it.
class MacPacket final : public Packet {
 public:
  static constexpr std::uint32_t kHeaderLength = 14;  // IEEE 802.3 clause 3.1.1, without tag

  MacPacket(std::uint64_t receive_index, const std::uint8_t* data, std::uint32_t captured_length,
            std::uint64_t receive_time_ns);

  // The frame must be at least as long as its Ethernet header.
  Position PayloadBegin() const override { return bytes_.begin() + kHeaderLength; }
  const std::uint8_t* Payload() const override { return bytes_.data() + kHeaderLength; }
  std::int32_t PayloadLength() const override;
  std::uint64_t ReceiveTime() const override { return receive_time_ns_; }
  std::uint64_t ReceiveIndex() const override { return receive_index_; }

  const std::vector<std::uint8_t>& Bytes() const { return bytes_; }

 private:
  std::vector<std::uint8_t> bytes_;
  std::uint64_t receive_time_ns_;
  std::uint64_t receive_index_;
};

}  // namespace ipplayout
