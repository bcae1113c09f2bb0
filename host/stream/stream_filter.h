// SPDX-License-Identifier: MIT
// What of a multiplex is played: one programme, some PIDs, or some PIDs of one programme.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>

#include "host/stream/packet_format.h"
#include "host/stream/pid_filter.h"
#include "host/stream/program_filter.h"

namespace ipplay {

struct FilterOrder {
  std::optional<std::uint16_t> program{};
  std::set<std::uint16_t> pids{};  // none: all
};

class StreamFilter {
 public:
  StreamFilter(PacketFormat format, const FilterOrder& order) : format_(format) {
    if (order.program) {
      program_.emplace(*order.program);
    }
    if (!order.pids.empty()) {
      pids_.emplace(order.pids);
    }
  }

  bool LeavesAll() const { return !program_ && !pids_; }

  // Rewrites whole packets in place: what is not played becomes null packets.
  void Filter(std::span<std::uint8_t> packets);

  // In the PATs so far, where one programme is wanted.
  std::set<std::uint16_t> Programs() const {
    return program_ ? program_->Programs() : std::set<std::uint16_t>();
  }
  // That packets have or PMTs name, where some are wanted.
  std::set<std::uint16_t> Pids() const {
    return pids_ ? pids_->Known() : std::set<std::uint16_t>();
  }

 private:
  PacketFormat format_;
  std::optional<ProgramFilter> program_;
  std::optional<PidFilter> pids_;
};

}  // namespace ipplay
