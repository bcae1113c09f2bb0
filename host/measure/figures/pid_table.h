// SPDX-License-Identifier: MIT
// What is known of each PID of a stream. All 8,192 may occur; a stream pays for those that do.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "host/measure/figures/pcr_tracker.h"
#include "host/measure/figures/psi_section.h"
#include "host/measure/figures/ts_packet.h"

namespace ipplay::measure {

// Figures that only a few PIDs have.
struct PidDetail {
  std::unique_ptr<PcrTracker> pcr;
  SectionAssembler sections;
};

struct PidState {
  // What the tables say that the PID is for.
  enum Role : std::uint8_t {
    kSections = 1,
    kProgramMap = 2,
    kReferenced = 4,
    kComponent = 8,
    kAudioVideo = 16,  // a component whose time stamps must come
    kWatched = 32,     // a component whose packets must come
    kPcrPid = 64,
  };
  enum Flag : std::uint8_t {
    kCounterKnown = 1,
    kRepeated = 2,  // the last packet repeated the counter before, which may happen once
    kHasPts = 4,
    kPacketsOverdue = 8,
    kPtsOverdue = 16,
    kUnreferencedCounted = 32,
  };

  std::uint16_t pid = 0;
  std::uint8_t roles = 0;
  std::uint8_t flags = 0;
  std::uint8_t last_counter = 0;
  std::uint8_t missing = 0;   // bit n: the packet n places behind the last one did not come
  std::uint16_t damaged = 0;  // how many damaged packets the stream had at the last packet
  std::uint64_t packets = 0;
  std::uint64_t continuity_errors = 0;
  std::int64_t last_ns = 0;   // last packet
  std::int64_t pts_ns = 0;    // last PTS
  std::int64_t since_ns = 0;  // when the roles began
  std::unique_ptr<PidDetail> detail;

  bool Is(std::uint8_t any_role) const { return (roles & any_role) != 0; }
  bool Has(Flag flag) const { return (flags & flag) != 0; }
  void Set(Flag flag) { flags = static_cast<std::uint8_t>(flags | flag); }
  void Clear(Flag flag) { flags = static_cast<std::uint8_t>(flags & ~flag); }
  PcrTracker* Pcr() const { return detail == nullptr ? nullptr : detail->pcr.get(); }
  PidDetail& Detail() {
    if (detail == nullptr) {
      detail = std::make_unique<PidDetail>();
    }
    return *detail;
  }
};
static_assert(sizeof(PidState) <= 64, "thousands of streams may have thousands of them");

class PidTable {
 public:
  // Makes it if there is none, which ends the life of references to others.
  PidState& At(std::uint16_t pid) {
    if (PidState* state = Find(pid)) {
      return *state;
    }
    return Make(pid);
  }
  PidState* Find(std::uint16_t pid) {
    const std::size_t place = PlaceOf(pid);
    return place == 0 ? nullptr : &states_[place - 1];
  }
  const PidState* Find(std::uint16_t pid) const {
    const std::size_t place = PlaceOf(pid);
    return place == 0 ? nullptr : &states_[place - 1];
  }
  // In the order in which the PIDs appeared.
  std::span<PidState> All() { return states_; }
  std::span<const PidState> All() const { return states_; }

 private:
  static constexpr std::size_t kPageSize = 64;
  using Page = std::array<std::uint16_t, kPageSize>;  // place in states_ plus 1; 0 for none

  PidState& Make(std::uint16_t pid);
  std::size_t PlaceOf(std::uint16_t pid) const {
    const std::uint8_t page = page_of_[pid / kPageSize];
    return page == 0 ? 0 : pages_[page - 1U][pid % kPageSize];
  }

  std::array<std::uint8_t, kTsPids / kPageSize> page_of_{};  // place in pages_ plus 1; 0 for none
  std::vector<Page> pages_;
  std::vector<PidState> states_;
};

}  // namespace ipplay::measure
