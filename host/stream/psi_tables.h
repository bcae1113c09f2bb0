// SPDX-License-Identifier: MIT
// The tables that lead to the streams of a programme, PAT and PMT, in packets: ISO/IEC 13818-1,
// 2.4.4.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <vector>

#include "host/measure/figures/psi_section.h"

namespace ipplay {

inline constexpr std::uint16_t kPatPid = 0;
inline constexpr std::uint16_t kPidMask = 0x1FFF;
inline constexpr std::uint8_t kPatTable = 0;
inline constexpr std::uint8_t kPmtTable = 2;
inline constexpr std::size_t kCrcBytes = 4;

// Of a section: version_number with current_next_indicator.
inline constexpr std::size_t kVersionByte = 5;
inline constexpr unsigned kVersions = 32;
std::uint8_t VersionOf(std::uint8_t byte);
// The version counted on, modulo 32.
std::uint8_t WithVersion(std::uint8_t byte, unsigned added);

std::span<const std::uint8_t> PayloadOf(std::uint8_t* packet);

// An entry of the PAT that is no programme's, but the network's table, has the number 0.
struct PatEntry {
  std::uint16_t program = 0;
  std::uint16_t pmt_pid = 0;
};
// False unless the section is a PAT's, whole and in force.
bool ReadPat(measure::Section section, const std::function<void(const PatEntry&)>& entry);
// `id` and the byte with version and current_next_indicator are those of the stream's own PAT.
std::vector<std::uint8_t> MakePat(std::uint16_t id, std::uint8_t version_byte,
                                  std::span<const PatEntry> entries);

struct PmtHead {
  std::uint16_t program = 0;
  std::uint16_t pcr_pid = kPidMask;  // that value: none
  measure::Section bytes;            // header and descriptors of the programme
};
struct PmtStream {
  std::uint16_t pid = 0;
  measure::Section bytes;  // the entry with its descriptors
};
// False, without calls, unless the section is a PMT's, whole and in force.
bool ReadPmt(measure::Section section, const std::function<void(const PmtHead&)>& head,
             const std::function<void(const PmtStream&)>& stream);

// PIDs with the keys that descriptors name: of the programme, behind PmtHead::bytes' header, or of
// a stream.
void ForEachKeyPid(const PmtHead& head, const std::function<void(std::uint16_t)>& key);
void ForEachKeyPid(const PmtStream& stream, const std::function<void(std::uint16_t)>& key);

// Sets section_length and the check bytes of a section that ends where they are to stand.
void CloseSection(std::vector<std::uint8_t>& section);

// Sections on their way out in the packets of one PID. One begins in a packet of its own unless it
// fits whole behind the one before.
class SectionPackets {
 public:
  bool IsEmpty() const { return payloads_.empty(); }
  void Add(measure::Section section);
  // Makes the packet the next one of the PID; leaves it as it is where nothing waits.
  bool Write(std::uint8_t* packet, std::uint16_t pid);

 private:
  static constexpr std::size_t kPayload = 184;
  struct Payload {
    std::array<std::uint8_t, kPayload> bytes{};
    std::size_t used = 0;
    bool starts_section = false;
  };

  std::deque<Payload> payloads_;
  std::uint8_t counter_ = 0;
};

}  // namespace ipplay
