// SPDX-License-Identifier: MIT
#include "host/stream/psi_tables.h"

#include <bitstream/mpeg/ts.h>

#include <algorithm>

#include "host/base/byte_order.h"

namespace ipplay {
namespace {

using measure::LoadBe16;
using measure::Section;

constexpr std::uint16_t kLengthMask = 0x0FFF;
constexpr std::uint8_t kCaDescriptor = 9;  // ISO/IEC 13818-1, 2.6.16
constexpr std::size_t kLongHeader = 8;
constexpr std::size_t kPmtHeader = 12;
constexpr std::size_t kStreamHeader = 5;

std::uint8_t High(std::uint16_t value) {
  return static_cast<std::uint8_t>(value >> 8);
}
std::uint8_t Low(std::uint16_t value) {
  return static_cast<std::uint8_t>(value);
}

// In force, and with what each table has.
bool IsTable(Section section, std::uint8_t table, std::size_t header) {
  return section.size() >= header + kCrcBytes && section[0] == table &&
         measure::IsIntact(section) && (section[kVersionByte] & 1) != 0;
}

void ForEachKeyPidIn(Section descriptors, const std::function<void(std::uint16_t)>& key) {
  for (std::size_t at = 0; at + 2 <= descriptors.size(); at += 2U + descriptors[at + 1]) {
    if (descriptors[at] == kCaDescriptor && descriptors[at + 1] >= 4 &&
        at + 6 <= descriptors.size()) {
      key(LoadBe16(&descriptors[at + 4]) & kPidMask);
    }
  }
}

}  // namespace

std::uint8_t VersionOf(std::uint8_t byte) {
  return (byte >> 1) & 0x1F;
}

std::uint8_t WithVersion(std::uint8_t byte, unsigned added) {
  const unsigned version = (VersionOf(byte) + added) % kVersions;
  return static_cast<std::uint8_t>((byte & 0xC1) | version << 1);
}

std::span<const std::uint8_t> PayloadOf(std::uint8_t* packet) {
  if (!ts_has_payload(packet)) {
    return {};
  }
  const std::uint8_t* const payload = ts_payload(packet);
  return {payload,
          static_cast<std::size_t>(std::max<std::ptrdiff_t>(packet + TS_SIZE - payload, 0))};
}

// ISO/IEC 13818-1, 2.4.4.3.
bool ReadPat(Section section, const std::function<void(const PatEntry&)>& entry) {
  if (!IsTable(section, kPatTable, kLongHeader)) {
    return false;
  }
  for (std::size_t at = kLongHeader; at + 4 + kCrcBytes <= section.size(); at += 4) {
    entry({LoadBe16(&section[at]),
           static_cast<std::uint16_t>(LoadBe16(&section[at + 2]) & kPidMask)});
  }
  return true;
}

std::vector<std::uint8_t> MakePat(std::uint16_t id, std::uint8_t version_byte,
                                  std::span<const PatEntry> entries) {
  std::vector<std::uint8_t> section{kPatTable, 0xB0, 0, High(id), Low(id), version_byte, 0, 0};
  for (const PatEntry& entry : entries) {
    section.insert(section.end(),
                   {High(entry.program), Low(entry.program),
                    static_cast<std::uint8_t>(0xE0 | High(entry.pmt_pid)), Low(entry.pmt_pid)});
  }
  CloseSection(section);
  return section;
}

// ISO/IEC 13818-1, 2.4.4.8.
bool ReadPmt(Section section, const std::function<void(const PmtHead&)>& head,
             const std::function<void(const PmtStream&)>& stream) {
  if (!IsTable(section, kPmtTable, kPmtHeader)) {
    return false;
  }
  const auto table = section.first(section.size() - kCrcBytes);
  const std::size_t wanted = kPmtHeader + (LoadBe16(&table[10]) & kLengthMask);
  std::size_t at = std::min(wanted, table.size());
  head({LoadBe16(&table[3]), static_cast<std::uint16_t>(LoadBe16(&table[8]) & kPidMask),
        table.first(at)});
  while (at + kStreamHeader <= table.size()) {
    const std::size_t length = std::min<std::size_t>(
        kStreamHeader + (LoadBe16(&table[at + 3]) & kLengthMask), table.size() - at);
    stream({static_cast<std::uint16_t>(LoadBe16(&table[at + 1]) & kPidMask),
            table.subspan(at, length)});
    at += length;
  }
  return true;
}

void ForEachKeyPid(const PmtHead& head, const std::function<void(std::uint16_t)>& key) {
  ForEachKeyPidIn(head.bytes.subspan(kPmtHeader), key);
}

void ForEachKeyPid(const PmtStream& stream, const std::function<void(std::uint16_t)>& key) {
  ForEachKeyPidIn(stream.bytes.subspan(kStreamHeader), key);
}

void CloseSection(std::vector<std::uint8_t>& section) {
  const auto length = static_cast<std::uint16_t>(section.size() + kCrcBytes - 3);
  section[1] = static_cast<std::uint8_t>((section[1] & 0xF0) | High(length));
  section[2] = Low(length);
  const std::uint32_t crc = measure::MpegCrc32(section);
  for (unsigned shift = 32; shift > 0; shift -= 8) {
    section.push_back(static_cast<std::uint8_t>(crc >> (shift - 8)));
  }
}

void SectionPackets::Add(Section section) {
  if (payloads_.empty() || section.size() > kPayload - payloads_.back().used ||
      !payloads_.back().starts_section) {
    payloads_.emplace_back().used = 1;  // the pointer field, which is 0
    payloads_.back().starts_section = true;
  }
  while (true) {
    Payload& payload = payloads_.back();
    const std::size_t count = std::min(section.size(), kPayload - payload.used);
    std::copy_n(section.begin(), count,
                payload.bytes.begin() + static_cast<std::ptrdiff_t>(payload.used));
    payload.used += count;
    section = section.subspan(count);
    if (section.empty()) {
      return;
    }
    payloads_.emplace_back();
  }
}

bool SectionPackets::Write(std::uint8_t* packet, std::uint16_t pid) {
  if (payloads_.empty()) {
    return false;
  }
  const Payload& payload = payloads_.front();
  std::fill_n(packet, TS_SIZE, std::uint8_t{0xFF});
  std::fill_n(packet, TS_HEADER_SIZE, std::uint8_t{0});
  ts_init(packet);
  ts_set_pid(packet, pid);
  ts_set_payload(packet);
  if (payload.starts_section) {
    ts_set_unitstart(packet);
  }
  ts_set_cc(packet, counter_++ & 0xF);
  std::copy_n(payload.bytes.begin(), payload.used, packet + TS_HEADER_SIZE);
  payloads_.pop_front();
  return true;
}

}  // namespace ipplay
