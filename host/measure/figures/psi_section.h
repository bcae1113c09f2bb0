// SPDX-License-Identifier: MIT
// Sections of tables, ISO/IEC 13818-1, 2.4.4: how they lie in packets, and their check bytes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ipplay::measure {

using Section = std::span<const std::uint8_t>;

// Puts together the sections of one PID: several in a packet, or one over several packets.
class SectionAssembler {
 public:
  // Calls on_section(Section) for every section that the payload of a packet completes, and for one
  // that broke off because the next one began: it is shorter than it says.
  template <typename OnSection>
  void Push(std::span<const std::uint8_t> payload, bool starts_unit, OnSection&& on_section);
  // Drops the section in progress.
  void Drop() { kept_.clear(); }

 private:
  static constexpr std::size_t kLengthEnd = 3;  // bytes up to and including section_length
  static constexpr std::uint8_t kStuffing = 0xFF;

  static std::size_t LengthOf(Section section);  // SIZE_MAX while it is not known
  template <typename OnSection>
  void TakeWhole(std::span<const std::uint8_t> payload, OnSection&& on_section);
  void Keep(std::span<const std::uint8_t> bytes) {
    kept_.insert(kept_.end(), bytes.begin(), bytes.end());
  }

  std::vector<std::uint8_t> kept_;  // the begin of a section
};

// CRC-32 of ISO/IEC 13818-1, Annex A: 0 over a whole intact section.
std::uint32_t MpegCrc32(std::span<const std::uint8_t> bytes);

// Whether the section is as long as it says, is no shorter than its header, and has right check
// bytes, if its kind has any.
bool IsIntact(Section section);

template <typename OnSection>
void SectionAssembler::Push(std::span<const std::uint8_t> payload, bool starts_unit,
                            OnSection&& on_section) {
  if (!starts_unit) {
    if (kept_.empty()) {
      return;
    }
    Keep(payload);
    // Another section could only begin in a packet that says so.
    if (const std::size_t length = LengthOf(kept_); kept_.size() >= length) {
      on_section(Section(kept_).first(length));
      kept_.clear();
    }
    return;
  }
  if (payload.empty() || payload.size() < std::size_t{1} + payload[0]) {
    kept_.clear();
    return;
  }
  if (!kept_.empty()) {
    Keep(payload.subspan(1, payload[0]));
    on_section(Section(kept_).first(std::min(kept_.size(), LengthOf(kept_))));
    kept_.clear();
  }
  TakeWhole(payload.subspan(std::size_t{1} + payload[0]), on_section);
}

template <typename OnSection>
void SectionAssembler::TakeWhole(std::span<const std::uint8_t> payload, OnSection&& on_section) {
  while (!payload.empty() && payload[0] != kStuffing) {
    const std::size_t length = LengthOf(payload);
    if (length > payload.size()) {
      Keep(payload);
      return;
    }
    on_section(payload.first(length));
    payload = payload.subspan(length);
  }
}

}  // namespace ipplay::measure
