// SPDX-License-Identifier: MIT
// Capture files with nanoseconds and comments (draft-ietf-opsawg-pcapng, sections 4.1 to 4.3).
//
//   every block   0 type, 4 total length, ..., total length again; padded to 32 bits
//   section       type 0x0A0D0D0A: 8 byte-order magic, 12 version 1.0, 16 section length -1,
//   options interface     type 1: 8 link type, 10 reserved, 12 snapshot length, 16 options packet
//   type 6: 8 interface, 12 time (upper half, lower half), 20 captured length,
//                 24 original length, 28 bytes, options
//   option        0 code, 2 length, 4 value; padded to 32 bits; code 0 ends the list
//
// Numbers are in little-endian order, whatever the machine's.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "driver/opened.h"
#include "driver/output_file.h"
#include "platform/deadline_waiter.h"

namespace ipplayout {

// One section with one Ethernet interface. Nothing in the file comes from the machine or the time
// of writing: the same calls give the same file. Belongs to one thread at a time.
class PcapngWriter {
 public:
  struct Description {
    std::string application;  // that writes the file; empty: not said
    std::string interface;    // name of the interface; empty: not said
  };
  struct Packet {
    std::chrono::nanoseconds time{0};  // since 1970
    std::span<const std::uint8_t> bytes;
    std::size_t original_length = 0;  // at least bytes.size()
    std::string_view comment;         // UTF-8; empty: none
  };
  // What one packet block may take: longer comments are cut short, longer packets refused.
  static constexpr std::size_t kMostPacketBytes = 128 << 10;

  // See OutputFile for what becomes of a file.
  static Opened<PcapngWriter> Open(const std::string& path, const Description& description);

  // 0, or a system error number: EMSGSIZE for a packet that is too long, ECANCELED when `waiter`
  // gave up; after any other one nothing more is written.
  int Write(const Packet& packet, const platform::DeadlineWaiter& waiter);
  // 0 when everything is written, and the file has its name.
  int Finish() { return file_->Finish(); }
  std::uint64_t Waits() const { return file_->Waits(); }

 private:
  explicit PcapngWriter(std::unique_ptr<OutputFile> file) : file_(std::move(file)) {}

  void WriteSection(const Description& description);

  const std::unique_ptr<OutputFile> file_;
};

}  // namespace ipplayout
