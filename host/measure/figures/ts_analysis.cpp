// SPDX-License-Identifier: MIT
#include "host/measure/figures/ts_analysis.h"

#include <algorithm>
#include <utility>

#include "host/base/byte_order.h"
#include "host/measure/figures/psi_section.h"

namespace ipplay::measure {
namespace {

constexpr std::uint16_t kPatPid = 0x0000;
constexpr std::uint16_t kNullPid = 0x1FFF;
constexpr std::int64_t kLongestTableIntervalNs = 500'000'000;
constexpr std::int64_t kLongestPtsIntervalNs = 700'000'000;

// Packet header and adaptation field, ISO/IEC 13818-1, 2.4.3.2 to 2.4.3.5.
bool HasTransportError(TsPacket packet) {
  return (packet[1] & 0x80) != 0;
}
bool StartsUnit(TsPacket packet) {
  return (packet[1] & 0x40) != 0;
}
std::uint16_t PidOf(TsPacket packet) {
  return LoadBe16(&packet[1]) & 0x1FFF;
}
bool IsScrambled(TsPacket packet) {
  return (packet[3] & 0xC0) != 0;
}
bool HasAdaptation(TsPacket packet) {
  return (packet[3] & 0x20) != 0;
}
bool HasPayload(TsPacket packet) {
  return (packet[3] & 0x10) != 0;
}
std::uint8_t CounterOf(TsPacket packet) {
  return packet[3] & 0x0F;
}

std::uint8_t AdaptationFlags(TsPacket packet) {
  return HasAdaptation(packet) && packet[4] > 0 ? packet[5] : 0;
}
bool IsDiscontinuous(TsPacket packet) {
  return (AdaptationFlags(packet) & 0x80) != 0;
}
bool HasPcr(TsPacket packet) {
  return (AdaptationFlags(packet) & 0x10) != 0 && packet[4] >= 7;
}

std::uint64_t PcrOf(TsPacket packet) {
  const std::uint64_t base =
      (std::uint64_t{LoadBe32(&packet[6])} << 1) | (std::uint64_t{packet[10]} >> 7);
  const std::uint64_t extension = LoadBe16(&packet[10]) & 0x01FFU;
  return base * 300 + extension;
}

std::span<const std::uint8_t> PayloadOf(TsPacket packet) {
  if (!HasPayload(packet)) {
    return {};
  }
  const std::size_t start = HasAdaptation(packet) ? std::size_t{5} + packet[4] : 4;
  return start < packet.size() ? packet.subspan(start) : std::span<const std::uint8_t>{};
}

// PES header with a time stamp, ISO/IEC 13818-1, 2.4.3.6; streams without optional fields have
// other bits in place of the leading '10'.
bool HasPts(std::span<const std::uint8_t> pes) {
  return pes.size() >= 14 && pes[0] == 0 && pes[1] == 0 && pes[2] == 1 && (pes[6] & 0xC0) == 0x80 &&
         (pes[7] & 0x80) != 0;
}

}  // namespace

TsAnalysis::TsAnalysis() {
  pids_.reserve(16);
}

void TsAnalysis::Add(std::span<const std::uint8_t> payload, std::int64_t arrival_ns,
                     bool after_gap) {
  if (framer_.HasGivenUp()) {
    return;
  }
  if (!started_) {
    started_ = true;
    first_ns_ = pat_ns_ = arrival_ns;
  }
  last_ns_ = arrival_ns;
  if (after_gap) {
    ++epoch_;
  }
  const std::uint64_t start = byte_index_;
  framer_.Push(payload, [&](TsPacket packet, std::ptrdiff_t offset) {
    // Unsigned, so that a packet that began in an earlier datagram lies before this one's start.
    AddPacket(packet, {arrival_ns, start + static_cast<std::uint64_t>(offset), offset});
  });
  byte_index_ += payload.size();
}

void TsAnalysis::AddPacket(TsPacket packet, const Place& place) {
  ++counters_.packets;
  const std::uint16_t pid = PidOf(packet);
  if (HasTransportError(packet)) {
    // Nothing else in the packet can be relied on (TR 101 290, 5.2.2).
    ++counters_.transport_errors;
    return;
  }
  if (pid == kNullPid) {
    ++counters_.null_packets;
    return;
  }
  PidState* state = StateOf(pid);
  if (state == nullptr) {
    return;
  }
  ++state->packets;
  const bool discontinuity = IsDiscontinuous(packet);
  CheckContinuity(*state, packet, discontinuity);
  if (HasPcr(packet)) {
    AddPcr(*state, packet, place, discontinuity);
  }
  if (IsScrambled(packet)) {
    ++counters_.scrambled_packets;
  }
  if (StartsUnit(packet)) {
    if (!IsScrambled(packet)) {
      AddPayload(*state, PayloadOf(packet), place.arrival_ns);
    } else if (pid == kPatPid || state->is_pmt) {
      ++(pid == kPatPid ? counters_.pat_errors : counters_.pmt_errors);
    }
  }
}

TsAnalysis::PidState* TsAnalysis::StateOf(std::uint16_t pid) {
  if (index_[pid] == 0) {
    if (pids_.size() == kMaxPids) {
      return nullptr;
    }
    pids_.emplace_back(pid);
    index_[pid] = static_cast<std::uint8_t>(pids_.size());
  }
  return &pids_[index_[pid] - 1U];
}

// ISO/IEC 13818-1, 2.4.3.3: the counter steps with every packet that has a payload, and a packet
// may be sent twice.
void TsAnalysis::CheckContinuity(PidState& state, TsPacket packet, bool discontinuity) {
  const std::uint8_t counter = CounterOf(packet);
  if (state.counter_known && !discontinuity) {
    const auto step = static_cast<std::uint8_t>((counter - state.last_counter) & 0x0F);
    const bool is_repetition = HasPayload(packet) && step == 0 && !state.repeated;
    const std::uint8_t expected = HasPayload(packet) ? 1 : 0;
    if (step != expected && !is_repetition) {
      ++state.continuity_errors;
      ++counters_.continuity_errors;
      counters_.missing_packets += (step - expected) & 0x0FU;
      ++epoch_;
    }
    state.repeated = is_repetition;
  }
  state.counter_known = true;
  state.last_counter = counter;
}

void TsAnalysis::AddPcr(PidState& state, TsPacket packet, const Place& place, bool discontinuity) {
  if (state.pcr == nullptr) {
    state.pcr = std::make_unique<PcrTracker>();
    if (!has_reference_) {
      reference_pid_ = state.pid;
    }
    has_reference_ = true;
  }
  const double offset = state.pcr->Add({.pcr = PcrOf(packet),
                                        .arrival_ns = place.arrival_ns,
                                        .byte_index = place.byte_index,
                                        .byte_offset = place.byte_offset,
                                        .discontinuity = discontinuity,
                                        .epoch = epoch_});
  if (state.pid == reference_pid_) {
    pcr_offset_ = PcrOffset{place.arrival_ns, offset};
  }
}

void TsAnalysis::AddPayload(PidState& state, std::span<const std::uint8_t> payload,
                            std::int64_t arrival_ns) {
  if (state.pid == kPatPid || state.is_pmt) {
    AddSection(state, payload, arrival_ns);
  } else if (HasPts(payload)) {
    if (state.pts_ns >= 0 && arrival_ns - state.pts_ns > kLongestPtsIntervalNs) {
      ++counters_.pts_errors;
    }
    state.pts_ns = arrival_ns;
  }
}

void TsAnalysis::AddSection(PidState& state, std::span<const std::uint8_t> payload,
                            std::int64_t arrival_ns) {
  const auto section = FirstSection(payload);
  if (!section) {
    return;
  }
  const bool is_pat = state.pid == kPatPid;
  if (!section->bytes.empty() && MpegCrc32(section->bytes) != 0) {
    ++counters_.crc_errors;
    return;
  }
  if (is_pat && section->table_id != kTablePat) {
    ++counters_.pat_errors;
  }
  if (section->table_id != (is_pat ? kTablePat : kTablePmt)) {
    return;
  }

  std::int64_t& last_ns = is_pat ? pat_ns_ : state.table_ns;
  if (arrival_ns - last_ns > kLongestTableIntervalNs) {
    ++(is_pat ? counters_.pat_errors : counters_.pmt_errors);
  }
  last_ns = arrival_ns;
  if (is_pat) {
    MarkProgramMaps(section->bytes, arrival_ns);
  }
}

void TsAnalysis::MarkProgramMaps(std::span<const std::uint8_t> section, std::int64_t arrival_ns) {
  for (const std::uint16_t pid : ProgramMapPids(section)) {
    PidState* state = StateOf(pid);
    if (state == nullptr || state->is_pmt) {
      continue;
    }
    state->is_pmt = true;
    state->table_ns = arrival_ns;
  }
}

void TsAnalysis::Finish(std::int64_t end_ns) {
  if (!IsTransportStream()) {
    return;
  }
  last_ns_ = std::max(last_ns_, end_ns);
  if (last_ns_ - pat_ns_ > kLongestTableIntervalNs) {
    ++counters_.pat_errors;
  }
  for (const PidState& state : pids_) {
    if (state.is_pmt && last_ns_ - state.table_ns > kLongestTableIntervalNs) {
      ++counters_.pmt_errors;
    }
  }
}

std::uint64_t TsAnalysis::Errors() const {
  return framer_.SyncLosses() + framer_.SyncByteErrors() + counters_.pat_errors +
         counters_.continuity_errors + counters_.pmt_errors + counters_.transport_errors;
}

std::vector<PidFigures> TsAnalysis::Pids() const {
  std::vector<PidFigures> figures;
  figures.reserve(pids_.size());
  for (const PidState& state : pids_) {
    figures.push_back({state.pid, state.packets, state.continuity_errors, state.pcr.get()});
  }
  return figures;
}

const PcrTracker* TsAnalysis::ReferenceClock() const {
  return has_reference_ ? pids_[index_[reference_pid_] - 1U].pcr.get() : nullptr;
}

std::optional<TsAnalysis::PcrOffset> TsAnalysis::TakePcrOffset() {
  return std::exchange(pcr_offset_, std::nullopt);
}

}  // namespace ipplay::measure
