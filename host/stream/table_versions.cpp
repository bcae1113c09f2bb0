// SPDX-License-Identifier: MIT
#include "host/stream/table_versions.h"

#include <bitstream/mpeg/ts.h>

#include "host/base/byte_order.h"

namespace ipplay {
namespace {

constexpr std::size_t kLengthEnd = 3;  // bytes up to and including section_length
constexpr std::size_t kMostBytes = kLengthEnd + 0xFFF;
constexpr std::uint8_t kStuffing = 0xFF;

// What a changed version changes in the check bytes: a CRC is linear. So right ones stay right and
// wrong ones wrong, and none have to be known when the version leaves.
std::uint32_t ChangeOfCheckBytes(std::uint8_t change, std::size_t section_bytes) {
  std::array<std::uint8_t, kMostBytes> bytes{};
  const auto from_version = std::span(bytes).first(section_bytes - kVersionByte - kCrcBytes);
  const std::uint32_t before = measure::MpegCrc32(from_version);
  bytes[0] = change;
  return before ^ measure::MpegCrc32(from_version);
}

}  // namespace

void TableVersions::Join(const StreamTables& next) {
  for (const auto& [program, first] : next.first) {
    unsigned& added = added_[program];
    const auto sent = sent_.find(program);
    if (sent == sent_.end() || sent->second.sections == first.sections) {
      continue;
    }
    if ((first.version + added) % kVersions == sent->second.version) {
      ++added;
      changes_ = true;
    }
  }
  for (const auto& [program, last] : next.last) {
    Table& sent = sent_[program] = last;
    sent.version = static_cast<std::uint8_t>((sent.version + added_[program]) % kVersions);
  }
  pids_.clear();
  pids_[kPatPid];
  for (const std::uint16_t pid : next.pmt_pids) {
    pids_[pid];
  }
}

void TableVersions::Rewrite(std::uint8_t* packet) {
  const auto found = changes_ ? pids_.find(ts_get_pid(packet)) : pids_.end();
  if (found == pids_.end() || !ts_has_payload(packet)) {
    return;
  }
  Pid& pid = found->second;
  const std::uint8_t counter = ts_get_cc(packet);
  if (counter == pid.counter) {
    pid.section = pid.before;
  }
  pid.before = pid.section;
  pid.counter = counter;
  const std::size_t bytes = PayloadOf(packet).size();
  std::span payload(packet + (TS_SIZE - bytes), bytes);
  if (!ts_get_unitstart(packet)) {
    Pass(pid.section, payload);
    return;
  }
  if (payload.empty() || payload.size() < std::size_t{1} + payload[0]) {
    pid.section = {};
    return;
  }
  Pass(pid.section, payload.subspan(1, payload[0]));
  payload = payload.subspan(std::size_t{1} + payload[0]);
  pid.section = {};
  while (!payload.empty() && payload[0] != kStuffing) {
    pid.section = {.started = true};
    payload = payload.subspan(Pass(pid.section, payload));
  }
}

// Returns how many of the bytes belong to the section.
std::size_t TableVersions::Pass(Progress& section, std::span<std::uint8_t> payload) const {
  std::size_t taken = 0;
  while (section.started && taken < payload.size()) {
    PassByte(section, payload[taken++]);
    if (section.bytes >= kLengthEnd && section.bytes >= section.length) {
      section.started = false;
    }
  }
  return taken;
}

void TableVersions::PassByte(Progress& section, std::uint8_t& byte) const {
  const std::size_t at = section.bytes++;
  if (at < section.head.size()) {
    section.head[at] = byte;
  }
  if (at + 1 == kLengthEnd) {
    section.length = kLengthEnd + (measure::LoadBe16(&section.head[1]) & 0xFFF);
  } else if (at == kVersionByte) {
    if (const unsigned added = AddedTo(section)) {
      byte = WithVersion(byte, added);
      section.change = ChangeOfCheckBytes(byte ^ section.head[at], section.length);
    }
  } else if (section.change != 0 && at + kCrcBytes >= section.length) {
    byte ^= static_cast<std::uint8_t>(section.change >> 8 * (section.length - 1 - at));
  }
}

unsigned TableVersions::AddedTo(const Progress& section) const {
  constexpr std::size_t kShortest = 12;  // with check bytes
  const std::uint8_t table = section.head[0];
  if ((table != kPatTable && table != kPmtTable) || section.length < kShortest) {
    return 0;
  }
  const auto found = added_.find(table == kPatTable ? 0 : measure::LoadBe16(&section.head[3]));
  return found == added_.end() ? 0 : found->second;
}

}  // namespace ipplay
