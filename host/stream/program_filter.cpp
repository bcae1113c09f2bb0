// SPDX-License-Identifier: MIT
#include "host/stream/program_filter.h"

#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <array>

#include "host/base/byte_order.h"

namespace ipplay {
namespace {

using measure::LoadBe16;

constexpr std::uint16_t kPatPid = 0;
constexpr std::uint16_t kPidMask = 0x1FFF;
constexpr std::uint16_t kLengthMask = 0x0FFF;
constexpr std::uint8_t kPatTable = 0;
constexpr std::uint8_t kPmtTable = 2;
constexpr std::uint8_t kCaDescriptor = 9;  // ISO/IEC 13818-1, 2.6.16
constexpr std::size_t kCrcBytes = 4;
constexpr std::size_t kLongHeader = 8;
constexpr std::size_t kPmtHeader = 12;

std::span<const std::uint8_t> PayloadOf(std::uint8_t* packet) {
  if (!ts_has_payload(packet)) {
    return {};
  }
  const std::uint8_t* const payload = ts_payload(packet);
  return {payload,
          static_cast<std::size_t>(std::max<std::ptrdiff_t>(packet + TS_SIZE - payload, 0))};
}

// In force, and with what each table has.
bool IsTable(measure::Section section, std::uint8_t table, std::size_t header) {
  return section.size() >= header + kCrcBytes && section[0] == table &&
         measure::IsIntact(section) && (section[5] & 1) != 0;
}

}  // namespace

void ProgramFilter::Filter(std::span<std::uint8_t> packets) {
  for (std::size_t at = 0; at < packets.size(); at += format_.packet_bytes) {
    std::uint8_t* const packet = packets.data() + at + format_.SyncOffset();
    if (!IsKept(packet)) {
      ts_pad(packet);
    }
  }
}

bool ProgramFilter::IsKept(std::uint8_t* packet) {
  const std::uint16_t pid = ts_get_pid(packet);
  if (ts_get_transporterror(packet)) {
    return kept_[pid];
  }
  if (pid == kPatPid) {
    pat_.Push(PayloadOf(packet), ts_get_unitstart(packet),
              [this](measure::Section section) { TakePat(section); });
    return ReplacePat(packet);
  }
  if (pid == pmt_pid_) {
    pmt_.Push(PayloadOf(packet), ts_get_unitstart(packet),
              [this](measure::Section section) { TakePmt(section); });
  }
  return kept_[pid];
}

// ISO/IEC 13818-1, 2.4.4.3. Programme 0 is the network's table.
void ProgramFilter::TakePat(measure::Section section) {
  if (!IsTable(section, kPatTable, kLongHeader)) {
    return;
  }
  for (std::size_t at = kLongHeader; at + 4 + kCrcBytes <= section.size(); at += 4) {
    const std::uint16_t program = LoadBe16(&section[at]);
    const std::uint16_t pid = LoadBe16(&section[at + 2]) & kPidMask;
    if (program != 0) {
      programs_.insert(program);
    }
    if (program != program_ || program == 0) {
      continue;
    }
    stream_id_ = LoadBe16(&section[3]);
    pat_version_ = section[5];
    if (pmt_pid_ != pid) {
      pmt_.Drop();
      kept_.reset();
      kept_.set(pid);
      pmt_pid_ = pid;
    }
  }
}

// One packet for each one that starts a section; it holds the whole table.
bool ProgramFilter::ReplacePat(std::uint8_t* packet) {
  if (!pmt_pid_ || !ts_get_unitstart(packet)) {
    return false;
  }
  constexpr std::uint8_t kSectionLength = 13;
  const auto high = [](std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8); };
  const auto low = [](std::uint16_t value) { return static_cast<std::uint8_t>(value); };
  std::array<std::uint8_t, 16> section{kPatTable,
                                       0xB0,
                                       kSectionLength,
                                       high(stream_id_),
                                       low(stream_id_),
                                       pat_version_,
                                       0,
                                       0,
                                       high(program_),
                                       low(program_),
                                       static_cast<std::uint8_t>(0xE0 | high(*pmt_pid_)),
                                       low(*pmt_pid_)};
  const std::uint32_t crc = measure::MpegCrc32(std::span(section).first(12));
  for (std::size_t i = 0; i < kCrcBytes; ++i) {
    section[12 + i] = static_cast<std::uint8_t>(crc >> (24 - 8 * i));
  }
  std::fill_n(packet, TS_SIZE, std::uint8_t{0xFF});
  std::fill_n(packet, TS_HEADER_SIZE + 1, std::uint8_t{0});
  ts_init(packet);
  ts_set_unitstart(packet);
  ts_set_payload(packet);
  ts_set_cc(packet, pat_counter_++ & 0xF);
  std::copy(section.begin(), section.end(), packet + TS_HEADER_SIZE + 1);
  return true;
}

// ISO/IEC 13818-1, 2.4.4.8.
void ProgramFilter::TakePmt(measure::Section section) {
  if (!IsTable(section, kPmtTable, kPmtHeader) || LoadBe16(&section[3]) != program_) {
    return;
  }
  kept_.reset();
  kept_.set(*pmt_pid_);
  if (const std::uint16_t pcr = LoadBe16(&section[8]) & kPidMask; pcr != kPidMask) {
    kept_.set(pcr);
  }
  const auto streams = section.first(section.size() - kCrcBytes);
  std::size_t at = kPmtHeader + (LoadBe16(&section[10]) & kLengthMask);
  KeepKeys(streams.subspan(kPmtHeader, std::min(at, streams.size()) - kPmtHeader));
  while (at + 5 <= streams.size()) {
    kept_.set(LoadBe16(&streams[at + 1]) & kPidMask);
    const std::size_t length = LoadBe16(&streams[at + 3]) & kLengthMask;
    KeepKeys(streams.subspan(at + 5, std::min(length, streams.size() - at - 5)));
    at += 5 + length;
  }
}

void ProgramFilter::KeepKeys(measure::Section descriptors) {
  for (std::size_t at = 0; at + 2 <= descriptors.size(); at += 2U + descriptors[at + 1]) {
    if (descriptors[at] == kCaDescriptor && descriptors[at + 1] >= 4 &&
        at + 6 <= descriptors.size()) {
      kept_.set(LoadBe16(&descriptors[at + 4]) & kPidMask);
    }
  }
}

}  // namespace ipplay
