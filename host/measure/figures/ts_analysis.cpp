// SPDX-License-Identifier: MIT
#include "host/measure/figures/ts_analysis.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace ipplay::measure {
namespace {

constexpr std::int64_t kMillisecond = 1'000'000;
constexpr std::int64_t kCheckIntervalNs = 100 * kMillisecond;
constexpr std::int64_t kLongestPtsIntervalNs = 700 * kMillisecond;
constexpr std::int64_t kLongestUnreferencedNs = 500 * kMillisecond;
// TR 101 290, 5.2.1, 1.6: at most 5 s for video and audio.
constexpr std::int64_t kLongestPidIntervalNs = 5000 * kMillisecond;
// ISO/IEC 13818-1 gives the CAT no interval; TR 101 290 wants one wherever packets are scrambled.
constexpr std::int64_t kLongestCatIntervalNs = 10'000 * kMillisecond;
constexpr std::int64_t kShortestJudgedCatNs = 500 * kMillisecond;

constexpr std::uint16_t kLastReservedPid = 0x001F;
constexpr std::uint16_t kFirstSiPid = 0x0010;
constexpr std::uint16_t kLastSiPid = 0x0014;
constexpr std::uint16_t kAtscPid = 0x1FFB;

// PES header with a time stamp, ISO/IEC 13818-1, 2.4.3.6; streams without optional fields have
// other bits in place of the leading '10'.
bool HasPts(std::span<const std::uint8_t> pes) {
  return pes.size() >= 14 && pes[0] == 0 && pes[1] == 0 && pes[2] == 1 && (pes[6] & 0xC0) == 0x80 &&
         (pes[7] & 0x80) != 0;
}

// Audio and video by their stream_id, ISO/IEC 13818-1, table 2-22.
bool IsAudioOrVideo(std::uint8_t stream_id) {
  return stream_id >= 0xC0 && stream_id <= 0xEF;
}

// Roles that a PID has by its number.
std::uint8_t FixedRoles(std::uint16_t pid) {
  const bool has_table =
      pid == kPatPid || pid == kCatPid || (pid >= kFirstSiPid && pid <= kLastSiPid);
  if (has_table) {
    return PidState::kSections | PidState::kReferenced;
  }
  return pid <= kLastReservedPid || pid == kAtscPid ? PidState::kReferenced : 0;
}

std::uint8_t RolesOf(const Component& component) {
  std::uint8_t roles = PidState::kReferenced | PidState::kComponent;
  const bool is_audio_video =
      component.kind == ComponentKind::kVideo || component.kind == ComponentKind::kAudio;
  if (is_audio_video) {
    roles |= PidState::kAudioVideo;
  }
  // TR 101 290 leaves audio for the impaired out, which may be silent for long.
  if (is_audio_video && !component.is_extra_audio) {
    roles |= PidState::kWatched;
  }
  return roles;
}

}  // namespace

void TsAnalysis::Add(std::span<const std::uint8_t> payload, std::int64_t arrival_ns,
                     bool after_gap) {
  if (given_up_ || framer_.HasGivenUp()) {
    return;
  }
  if (!started_) {
    started_ = true;
    next_check_ns_ = arrival_ns + kCheckIntervalNs;
    psi_.Start(arrival_ns);
  }
  last_ns_ = std::max(last_ns_, arrival_ns);
  if (after_gap) {
    ++epoch_;
  }
  packets_before_last_ = packets_;
  const std::uint64_t sync_losses = framer_.SyncLosses();
  const std::uint64_t start = byte_index_;
  framer_.Push(payload, [&](TsPacket packet, std::ptrdiff_t offset) {
    // A packet that began in an earlier datagram lies before this one's start. Differences between
    // the places of packets stay exact, since all packets are equally long.
    const auto length = static_cast<std::int64_t>(framer_.PacketLength());
    constexpr auto kNet = static_cast<std::int64_t>(kTsPacketLength);
    const std::int64_t byte = static_cast<std::int64_t>(start) + offset;
    AddPacket(packet, {arrival_ns, static_cast<std::uint64_t>(byte * kNet / length),
                       offset * kNet / length});
  });
  byte_index_ += payload.size();
  if (framer_.SyncLosses() != sync_losses) {
    LoseSync(arrival_ns);
  }
  if (arrival_ns >= next_check_ns_ && IsTransportStream()) {
    next_check_ns_ = arrival_ns + kCheckIntervalNs;
    Check(arrival_ns, false);
  }
}

// Nothing else is judged until packets are found again (TR 101 290, 5.2.1).
void TsAnalysis::LoseSync(std::int64_t now_ns) {
  log_.Count(Indicator::kSyncLoss, {.time_ns = now_ns});
  ForgetCounters();
}

void TsAnalysis::SkipUnread(std::size_t bytes, std::int64_t arrival_ns) {
  if (!IsTransportStream()) {
    return;
  }
  framer_.DropPart();
  byte_index_ += bytes;
  last_ns_ = std::max(last_ns_, arrival_ns);
  ForgetCounters();
  for (PidState& state : pids_.All()) {
    state.Clear(PidState::kHasPts);
    state.last_ns = std::max(state.last_ns, arrival_ns);
    if (PcrTracker* pcr = state.Pcr()) {
      pcr->SkipUnread(arrival_ns);
    }
  }
}

void TsAnalysis::ForgetCounters() {
  ++epoch_;
  for (PidState& state : pids_.All()) {
    state.Clear(PidState::kCounterKnown);
    if (state.detail != nullptr) {
      state.detail->sections.Drop();
    }
  }
}

void TsAnalysis::AddPacket(TsPacket packet, const Place& place) {
  if (packets_++ == 0) {
    for (const Indicator always : {Indicator::kSyncLoss, Indicator::kSyncByte,
                                   Indicator::kTransport, Indicator::kContinuity}) {
      log_.Measure(always);
    }
  }
  // Nothing else in such a packet can be relied on (TR 101 290, 5.2.2).
  if (packet[0] != kTsSyncByte) {
    log_.Count(Indicator::kSyncByte, {.time_ns = place.arrival_ns});
    AddDamaged(packet);
    return;
  }
  if (HasTransportError(packet)) {
    log_.Count(Indicator::kTransport, {place.arrival_ns, PidOf(packet)});
    AddDamaged(packet);
    return;
  }
  const std::uint16_t pid = PidOf(packet);
  if (pid == kNullPid) {
    ++null_packets_;
    return;
  }
  PidState& state = pids_.At(pid);
  if (state.packets++ == 0 && state.roles == 0) {
    state.roles = FixedRoles(pid);
    state.since_ns = place.arrival_ns;
  }
  state.last_ns = place.arrival_ns;
  state.Clear(PidState::kPacketsOverdue);
  const Order order = CheckCounter(state, packet, place.arrival_ns);
  if (HasPcr(packet)) {
    AddPcr(state, packet, place);
  }
  if (IsScrambled(packet)) {
    AddScrambled(state, packet, place.arrival_ns);
  } else if (state.Is(PidState::kSections)) {
    AddSections(state, packet, order, place.arrival_ns);
  } else if (StartsUnit(packet)) {
    AddPts(state, packet, place.arrival_ns);
  }
}

// A damaged packet is there, so that its PID misses none. Where its header is in order, the PID is
// known; otherwise one of those that miss a packet next is excused.
void TsAnalysis::AddDamaged(TsPacket packet) {
  PidState* state = pids_.Find(PidOf(packet));
  const auto next = [&] { return static_cast<std::uint8_t>((state->last_counter + 1) & 0x0F); };
  if (state != nullptr && state->Has(PidState::kCounterKnown) && HasPayload(packet) &&
      CounterOf(packet) == next()) {
    state->last_counter = next();
    if (state->detail != nullptr) {
      state->detail->sections.Drop();
    }
    return;
  }
  ++damaged_;
  ++damaged_unplaced_;
}

bool TsAnalysis::IsExcused(const PidState& state, unsigned missing) {
  const auto damaged = static_cast<std::uint16_t>(damaged_ - state.damaged);
  if (missing == 0 || damaged < missing || damaged_unplaced_ < missing) {
    return false;
  }
  damaged_unplaced_ -= missing;
  return true;
}

// ISO/IEC 13818-1, 2.4.3.3: the counter steps with every packet that has a payload, and a packet
// may be sent twice.
TsAnalysis::Order TsAnalysis::CheckCounter(PidState& state, TsPacket packet,
                                           std::int64_t arrival_ns) {
  const std::uint8_t counter = CounterOf(packet);
  const unsigned step = (counter - state.last_counter) & 0x0FU;
  const unsigned expected = HasPayload(packet) ? 1 : 0;
  Order order = Order::kNext;
  if (state.Has(PidState::kCounterKnown) && !IsDiscontinuous(packet) && step != expected) {
    const bool repeats = HasPayload(packet) && step == 0;
    const unsigned behind = 16 - step;
    if (HasPayload(packet) && behind <= 7 && (state.missing >> behind & 1U) != 0) {
      state.missing = static_cast<std::uint8_t>(state.missing & ~(1U << behind));
      ++late_packets_;
      ++epoch_;
      return Order::kLate;
    }
    order = repeats ? Order::kRepeated : Order::kBroken;
    if (repeats ? state.Has(PidState::kRepeated) : !IsExcused(state, step - expected)) {
      CountGap(state, repeats ? 0 : (step - expected) & 0x0FU, arrival_ns);
    }
    if (repeats) {
      ++epoch_;
    }
  }
  if (order != Order::kRepeated) {
    state.missing = static_cast<std::uint8_t>(state.missing << step);
    if (order == Order::kBroken) {
      state.missing |= static_cast<std::uint8_t>((1U << step) - 2);
    }
  }
  state.damaged = damaged_;
  order == Order::kRepeated ? state.Set(PidState::kRepeated) : state.Clear(PidState::kRepeated);
  state.Set(PidState::kCounterKnown);
  state.last_counter = counter;
  return order;
}

void TsAnalysis::CountGap(PidState& state, unsigned missing, std::int64_t arrival_ns) {
  ++state.continuity_errors;
  missing_packets_ += missing;
  ++epoch_;
  log_.Count(Indicator::kContinuity, {arrival_ns, state.pid, missing});
}

void TsAnalysis::AddPcr(PidState& state, TsPacket packet, const Place& place) {
  PidDetail& detail = state.Detail();
  if (detail.pcr == nullptr) {
    detail.pcr = std::make_unique<PcrTracker>();
  }
  if (!reference_pid_) {
    reference_pid_ = state.pid;
  }
  PcrTracker& pcr = *detail.pcr;
  Count(pcr.Add({.pcr = PcrOf(packet),
                 .arrival_ns = place.arrival_ns,
                 .byte_index = place.byte_index,
                 .byte_offset = place.byte_offset,
                 .discontinuity = IsDiscontinuous(packet),
                 .epoch = epoch_,
                 .counter = CounterOf(packet)}),
        state.pid, place.arrival_ns);
  if (pcr.Count() > 1) {
    log_.Measure(Indicator::kPcrRepetition);
    log_.Measure(Indicator::kPcrDiscontinuity);
  }
  if (state.pid == reference_pid_ && pcr.LastOffset()) {
    pcr_offset_ = PcrOffset{place.arrival_ns, *pcr.LastOffset()};
  }
}

void TsAnalysis::Count(const PcrFaults& faults, std::uint16_t pid, std::int64_t time_ns) {
  if (faults.repetition_ns) {
    log_.Count(Indicator::kPcrRepetition, {time_ns, pid, *faults.repetition_ns});
  }
  if (faults.jump_ns) {
    log_.Count(Indicator::kPcrDiscontinuity, {time_ns, pid, *faults.jump_ns});
  }
  if (faults.accuracy_ns) {
    log_.Count(Indicator::kPcrAccuracy, {time_ns, pid, std::llround(*faults.accuracy_ns)});
  }
}

void TsAnalysis::AddScrambled(const PidState& state, TsPacket packet, std::int64_t arrival_ns) {
  if (scrambled_packets_++ == scrambled_checked_ && scrambled_checked_ == 0) {
    scrambled_since_ns_ = arrival_ns;
  }
  if (!StartsUnit(packet)) {
    return;
  }
  if (state.pid == kPatPid) {
    log_.Count(Indicator::kPat, {arrival_ns, state.pid});
  } else if (state.Is(PidState::kProgramMap)) {
    log_.Count(Indicator::kPmt, {arrival_ns, state.pid});
  }
}

void TsAnalysis::AddSections(PidState& state, TsPacket packet, Order order,
                             std::int64_t arrival_ns) {
  if (order == Order::kRepeated || order == Order::kLate) {
    return;
  }
  SectionAssembler& sections = state.Detail().sections;
  if (order == Order::kBroken) {
    sections.Drop();
  }
  bool changed = false;
  const std::uint16_t pid = state.pid;
  sections.Push(PayloadOf(packet), StartsUnit(packet),
                [&](Section section) { changed = psi_.Add(pid, section, arrival_ns) || changed; });
  if (changed) {
    AssignRoles(arrival_ns);
  }
}

void TsAnalysis::AddPts(PidState& state, TsPacket packet, std::int64_t arrival_ns) {
  const auto payload = PayloadOf(packet);
  if (!HasPts(payload)) {
    return;
  }
  // Subtitles and data come when there are any.
  const bool judged =
      state.Is(PidState::kComponent) ? state.Is(PidState::kAudioVideo) : IsAudioOrVideo(payload[3]);
  const std::int64_t interval_ns = arrival_ns - state.pts_ns;
  if (judged && state.Has(PidState::kHasPts)) {
    log_.Measure(Indicator::kPts);
    if (interval_ns > kLongestPtsIntervalNs && !state.Has(PidState::kPtsOverdue)) {
      log_.Count(Indicator::kPts, {arrival_ns, state.pid, interval_ns});
    }
  }
  judged ? state.Set(PidState::kHasPts) : state.Clear(PidState::kHasPts);
  state.Clear(PidState::kPtsOverdue);
  state.pts_ns = arrival_ns;
}

void TsAnalysis::AssignRoles(std::int64_t now_ns) {
  const ServiceList& services = psi_.Services();
  std::vector<std::pair<std::uint16_t, std::uint8_t>> roles;
  const auto give = [&](std::uint16_t pid, int role) {
    if (pid != kNullPid) {
      roles.emplace_back(pid, static_cast<std::uint8_t>(role));
    }
  };
  give(services.NetworkPid(), PidState::kReferenced);
  for (const std::uint16_t pid : services.EmmPids()) {
    give(pid, PidState::kReferenced);
  }
  for (const auto& [program, service] : services.Services()) {
    give(service.pmt_pid, PidState::kReferenced | PidState::kProgramMap | PidState::kSections);
    give(service.pcr_pid, PidState::kReferenced | PidState::kPcrPid);
    for (const std::uint16_t pid : service.ecm_pids) {
      give(pid, PidState::kReferenced);
    }
    for (const Component& component : service.components) {
      give(component.pid, RolesOf(component));
    }
  }
  for (const auto& [pid, role] : roles) {
    pids_.At(pid);
  }
  std::vector<std::uint8_t> before;
  for (PidState& state : pids_.All()) {
    before.push_back(std::exchange(state.roles, FixedRoles(state.pid)));
  }
  for (const auto& [pid, role] : roles) {
    PidState& state = *pids_.Find(pid);
    state.roles = static_cast<std::uint8_t>(state.roles | role);
  }
  for (std::size_t i = 0; i < before.size(); ++i) {
    TakeUp(pids_.All()[i], before[i], now_ns);
  }
}

// A PID has got the roles that it has instead of those before.
void TsAnalysis::TakeUp(PidState& state, std::uint8_t before, std::int64_t now_ns) {
  if (state.roles == before) {
    return;
  }
  if (state.Is(PidState::kComponent) && state.pid <= kLastSiPid) {
    // Not a DVB stream, whose service information is there.
    state.roles = static_cast<std::uint8_t>(state.roles & ~PidState::kSections);
  }
  state.since_ns = now_ns;
  state.Clear(PidState::kUnreferencedCounted);
  state.Clear(PidState::kPacketsOverdue);
  if (!state.Is(PidState::kReferenced)) {
    state.Clear(PidState::kHasPts);
  }
  if (state.Is(PidState::kPcrPid)) {
    PidDetail& detail = state.Detail();
    if (detail.pcr == nullptr) {
      detail.pcr = std::make_unique<PcrTracker>();
    }
    detail.pcr->Expect(now_ns);
  }
}

void TsAnalysis::Check(std::int64_t now_ns, bool at_end) {
  psi_.Check(now_ns, at_end);
  CheckCat(now_ns, at_end);
  for (PidState& state : pids_.All()) {
    CheckPid(state, now_ns, at_end);
  }
}

void TsAnalysis::CheckPid(PidState& state, std::int64_t now_ns, bool at_end) {
  const std::int64_t waited_ns =
      now_ns - (state.packets > 0 ? std::max(state.last_ns, state.since_ns) : state.since_ns);
  if (state.Is(PidState::kWatched)) {
    log_.Measure(Indicator::kPid);
    if (waited_ns > kLongestPidIntervalNs && !state.Has(PidState::kPacketsOverdue)) {
      state.Set(PidState::kPacketsOverdue);
      log_.Count(Indicator::kPid, {now_ns, state.pid, waited_ns});
    }
  }
  const std::int64_t pts_waited_ns = now_ns - state.pts_ns;
  if (state.Has(PidState::kHasPts) && !state.Has(PidState::kPtsOverdue) &&
      pts_waited_ns > kLongestPtsIntervalNs) {
    state.Set(PidState::kPtsOverdue);
    log_.Count(Indicator::kPts, {now_ns, state.pid, pts_waited_ns});
  }
  if (psi_.Services().IsComplete()) {
    log_.Measure(Indicator::kUnreferencedPid);
    if (state.packets > 0 && !state.Is(PidState::kReferenced) &&
        !state.Has(PidState::kUnreferencedCounted) &&
        state.last_ns - state.since_ns > kLongestUnreferencedNs) {
      state.Set(PidState::kUnreferencedCounted);
      log_.Count(Indicator::kUnreferencedPid, {now_ns, state.pid});
    }
  }
  PcrTracker* pcr = state.Pcr();
  // A PID that the tables no longer give a clock to may end it.
  if (pcr != nullptr && (state.Is(PidState::kPcrPid) || !psi_.Services().IsComplete())) {
    Count(pcr->Check(now_ns, at_end ? std::nullopt : std::optional(packets_ * kTsPacketLength)),
          state.pid, now_ns);
  }
}

void TsAnalysis::CheckCat(std::int64_t now_ns, bool at_end) {
  if (scrambled_packets_ == std::exchange(scrambled_checked_, scrambled_packets_) && !at_end) {
    return;
  }
  if (scrambled_packets_ == 0) {
    return;
  }
  log_.Measure(Indicator::kCat);
  const auto cat = psi_.Intervals().Tables().find({.pid = kCatPid, .table_id = kTableCat});
  const bool came = cat != psi_.Intervals().Tables().end();
  const std::int64_t since_ns =
      came ? std::max(scrambled_since_ns_, cat->second.last_ns) : scrambled_since_ns_;
  const std::int64_t limit_ns = at_end && !came ? kShortestJudgedCatNs : kLongestCatIntervalNs;
  const bool overdue = now_ns - since_ns > limit_ns;
  if (overdue && !cat_overdue_) {
    log_.Count(Indicator::kCat, {now_ns, kCatPid});
  }
  cat_overdue_ = overdue;
}

void TsAnalysis::Finish(std::int64_t end_ns) {
  if (!IsTransportStream() || std::exchange(finished_, true)) {
    return;
  }
  const std::int64_t now_ns = std::max(end_ns, last_ns_);
  for (PidState& state : pids_.All()) {
    if (PcrTracker* pcr = state.Pcr()) {
      Count(pcr->Finish(), state.pid, now_ns);
      if (pcr->AccuracySpread()) {
        log_.Measure(Indicator::kPcrAccuracy);
      }
    }
  }
  Check(now_ns, true);
}

TsCounters TsAnalysis::Counters() const {
  return {.packets = packets_,
          .null_packets = null_packets_,
          .scrambled_packets = scrambled_packets_,
          .missing_packets = missing_packets_,
          .late_packets = late_packets_,
          .continuity_errors = log_[Indicator::kContinuity].count,
          .pat_errors = log_[Indicator::kPat].count,
          .pmt_errors = log_[Indicator::kPmt].count,
          .transport_errors = log_[Indicator::kTransport].count,
          .crc_errors = log_[Indicator::kCrc].count,
          .pts_errors = log_[Indicator::kPts].count};
}

std::uint64_t TsAnalysis::Errors() const {
  return log_.Sum(1) + log_[Indicator::kTransport].count;
}

std::vector<PidFigures> TsAnalysis::Pids() const {
  std::vector<PidFigures> figures;
  for (const PidState& state : pids_.All()) {
    figures.push_back({state.pid, state.packets, state.continuity_errors, state.Pcr()});
  }
  return figures;
}

void TsAnalysis::GiveUp() {
  given_up_ = true;
  finished_ = true;
  pids_ = {};
  psi_.GiveUp();
  framer_.GiveUp();
  reference_pid_.reset();
  pcr_offset_.reset();
}

const PcrTracker* TsAnalysis::ReferenceClock() const {
  return reference_pid_ ? pids_.Find(*reference_pid_)->Pcr() : nullptr;
}

std::optional<double> TsAnalysis::PcrRateBps() const {
  const PcrTracker* clock = ReferenceClock();
  return clock == nullptr ? std::nullopt : clock->BitRate();
}

std::optional<std::uint64_t> TsAnalysis::MissingPacketsByPcr() const {
  const PcrTracker* clock = ReferenceClock();
  const auto bytes = clock == nullptr ? std::nullopt : clock->MissingBytes();
  if (!bytes) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(std::llround(std::max(0.0, *bytes / kTsPacketLength)));
}

std::optional<TsAnalysis::PcrOffset> TsAnalysis::TakePcrOffset() {
  return std::exchange(pcr_offset_, std::nullopt);
}

}  // namespace ipplay::measure
