// SPDX-License-Identifier: MIT
#include "host/stream/restamper.h"

#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "host/stream/pes_times.h"

namespace ipplay {
namespace {

constexpr std::uint16_t kNullPid = 0x1FFF;
constexpr double kPcrSpacing = 0.04;  // seconds; ETSI TR 101 290, 5.2.2
constexpr std::uint32_t kArrivalMask = 0x3FFFFFFF;

bool HasFlags(const std::uint8_t* packet) {
  return ts_has_adaptation(packet) && ts_get_adaptation(packet) > 0;
}

// The bits beside the time itself stay as they are, damaged marker bits too (ISO/IEC 13818-1,
// 2.4.3.7).
template <typename Set>
void ChangeTime(std::uint8_t* field, const Set& set) {
  constexpr std::array<std::uint8_t, 5> kTimeBits{0x0E, 0xFF, 0xFE, 0xFF, 0xFE};
  std::array<std::uint8_t, kTimeBits.size()> before{};
  std::copy_n(field, before.size(), before.begin());
  set();
  for (std::size_t i = 0; i < before.size(); ++i) {
    field[i] = static_cast<std::uint8_t>((field[i] & kTimeBits[i]) | (before[i] & ~kTimeBits[i]));
  }
}

}  // namespace

// The seam is a row of slots: the packets after the last PCR, null packets, the packets of the next
// round up to its first PCR, and PCR packets among them at even distances. The clock runs on at
// the stream's mean rate, so that the time of a round is that of its bytes.
std::vector<SeamPacket> SeamPackets(const PcrRate& rate, std::uint64_t packets,
                                    std::uint64_t null_packets) {
  const double most = std::floor(kPcrSpacing * rate.packets_per_second);
  const std::uint64_t between = rate.first_packet + packets - rate.last_packet + null_packets;
  const double more = static_cast<double>(between) - most;
  const auto clocks =
      static_cast<std::uint64_t>(most < 2 || more <= 0 ? 0 : std::ceil(more / (most - 1)));
  const std::uint64_t slots = between + clocks;
  const std::uint64_t round = rate.TicksOf(packets + null_packets + clocks);
  std::vector<SeamPacket> head;
  std::vector<SeamPacket> tail;
  std::uint64_t next = rate.last_packet + 1;
  std::uint64_t clock = 1;
  for (std::uint64_t slot = 1; slot < slots; ++slot) {
    if (clock <= clocks && slot == clock * slots / (clocks + 1)) {
      ++clock;
      const std::uint64_t pcr = rate.last_pcr + rate.TicksOfStretch(slot);
      if (next <= packets) {
        tail.push_back({next, pcr % kPcrModulus});
      } else {
        head.push_back({next - packets, (pcr + kPcrModulus - round) % kPcrModulus});
      }
    } else if (next == packets && null_packets > 0) {
      tail.push_back({packets, std::nullopt});
      --null_packets;
    } else {
      ++next;
    }
  }
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

std::vector<SeamPacket> JoinPackets(const PcrRate& rate, std::uint64_t packets,
                                    std::uint64_t null_packets) {
  std::vector<SeamPacket> join;
  const auto spacing =
      std::max<std::uint64_t>(1, static_cast<std::uint64_t>(kPcrSpacing * rate.packets_per_second));
  for (std::uint64_t before = 0; before < rate.first_packet; before += spacing) {
    const std::uint64_t earlier = rate.TicksOfStretch(rate.first_packet - before);
    join.push_back({before, (rate.first_pcr + kPcrModulus - earlier % kPcrModulus) % kPcrModulus});
  }
  // The end is as that of a stream which begins with a PCR.
  PcrRate tail = rate;
  tail.first_packet = 0;
  const auto end = SeamPackets(tail, packets, null_packets);
  join.insert(join.end(), end.begin(), end.end());
  return join;
}

Restamper::Restamper(PacketFormat format, RestampPlan plan)
    : format_(format), plan_(std::move(plan)), offset_(plan_.start_offset % kPcrModulus) {
  if (!plan_.parts.empty()) {
    versions_.Join(plan_.parts.front().tables);
  }
}

bool Restamper::Run(std::span<std::uint8_t> packets, const Emit& emit) {
  std::size_t handed_on = 0;
  for (std::size_t at = 0; at < packets.size(); at += format_.packet_bytes) {
    while (IsPacketDue()) {
      const bool had_some = at > handed_on;
      if (had_some && !emit(packets.subspan(handed_on, at - handed_on))) {
        return false;
      }
      handed_on = at;
      if (!emit(MakePacket(packets.data() + at))) {
        return false;
      }
    }
    Restamp(packets.data() + at);
    ++packet_;
  }
  if (handed_on < packets.size()) {
    return emit(packets.subspan(handed_on));
  }
  // The end of the round.
  while (IsPacketDue()) {
    if (!emit(MakePacket(nullptr))) {
      return false;
    }
  }
  return true;
}

bool Restamper::IsPacketDue() const {
  return next_seam_packet_ < Seam().size() && Seam()[next_seam_packet_].before_packet <= packet_;
}

// ISO/IEC 13818-1, 2.4.3.3: the counter stands still in a packet without payload. The arrival time
// of a 192-byte packet is that of the next one.
Restamper::Bytes Restamper::MakePacket(const std::uint8_t* next) {
  constexpr std::uint8_t kAdaptationOnly = 183;
  const std::uint32_t sync = format_.SyncOffset();
  if (next != nullptr) {
    made_.assign(next, next + sync);
    if (sync == 4) {
      RestampArrival(made_.data());
    }
  }
  made_.resize(sync);
  made_.resize(format_.packet_bytes, 0xFF);
  std::uint8_t* const packet = made_.data() + sync;
  const auto pcr = Seam()[next_seam_packet_++].pcr;
  if (!pcr) {
    ts_pad(packet);
    return made_;
  }
  std::fill_n(packet, TS_HEADER_SIZE, std::uint8_t{0});
  ts_init(packet);
  const std::uint16_t pid = PartPcrPid().value_or(plan_.pcr_pid);
  ts_set_pid(packet, pid);
  ts_set_cc(packet, counters_[pid].last);
  counters_[pid].started = true;
  ts_set_adaptation(packet, kAdaptationOnly);
  WritePcr(packet, *pcr + offset_);
  return made_;
}

void Restamper::StartNextRound() {
  first_round_ = false;
  packet_ = 0;
  next_seam_packet_ = 0;
  if (plan_.parts.empty()) {
    offset_ += plan_.round_ticks;
  } else {
    const RestampPart& last = plan_.parts[part_];
    part_ = (part_ + 1) % plan_.parts.size();
    versions_.Join(plan_.parts[part_].tables);
    offset_ += (last.start + last.ticks) % kPcrModulus + kPcrModulus - plan_.parts[part_].start;
  }
  offset_ %= kPcrModulus;
  for (Counter& counter : counters_) {
    counter.started_round = false;
  }
}

void Restamper::Restamp(std::uint8_t* packet) {
  std::uint8_t* ts = packet + format_.SyncOffset();
  if (!ts_validate(ts) || ts_get_transporterror(ts)) {
    return;
  }
  versions_.Rewrite(ts);  // by the counters of the stream itself
  RestampCounter(ts);
  RestampClock(ts);
  RestampPes(ts);
  if (format_.SyncOffset() == 4) {
    RestampArrival(packet);
  }
}

// The first packet of a PID in a round continues the count of the round before. The shift that this
// takes holds for the whole round, so that gaps and repetitions in the file remain.
void Restamper::RestampCounter(std::uint8_t* packet) {
  const std::uint16_t pid = ts_get_pid(packet);
  if (pid == kNullPid) {
    return;
  }
  Counter& counter = counters_[pid];
  if (!counter.started_round) {
    if (counter.started) {
      const int next = counter.last + (ts_has_payload(packet) ? 1 : 0);
      counter.shift = static_cast<std::uint8_t>((next - ts_get_cc(packet)) & 0xF);
    }
    // A file may announce its own start as a discontinuity; a later round has none.
    if (!first_round_ && HasFlags(packet)) {
      tsaf_clear_discontinuity(packet);
    }
    counter.started = counter.started_round = true;
  }
  counter.last = static_cast<std::uint8_t>((ts_get_cc(packet) + counter.shift) & 0xF);
  ts_set_cc(packet, counter.last);
}

void Restamper::RestampClock(std::uint8_t* packet) const {
  if (const auto pcr = ReadPcr(packet)) {
    WritePcr(packet, *pcr + offset_);
  }
}

// Both time stamps move, or neither: a header that ends after the PTS is left alone.
void Restamper::RestampPes(std::uint8_t* packet) const {
  const auto stamps = FindPesStamps(packet);
  if (!stamps) {
    return;
  }
  const std::uint64_t pts = Shifted(pes_get_pts(stamps->pes));
  ChangeTime(stamps->pes + PES_HEADER_SIZE_NOPTS, [&] { pes_set_pts(stamps->pes, pts); });
  if (stamps->has_dts) {
    const std::uint64_t dts = Shifted(pes_get_dts(stamps->pes));
    ChangeTime(stamps->pes + PES_HEADER_SIZE_PTS, [&] { pes_set_dts(stamps->pes, dts); });
  }
}

std::uint64_t Restamper::Shifted(std::uint64_t timestamp_90khz) const {
  return (timestamp_90khz + offset_ / 300) % kPesTimeModulus;
}

// IEC 62481-2: two permission bits, then 30 bits of a 27 MHz arrival clock.
void Restamper::RestampArrival(std::uint8_t* header) const {
  const std::uint32_t word = std::uint32_t{header[0]} << 24 | std::uint32_t{header[1]} << 16 |
                             std::uint32_t{header[2]} << 8 | std::uint32_t{header[3]};
  const std::uint32_t arrival = (word + static_cast<std::uint32_t>(offset_)) & kArrivalMask;
  const std::uint32_t stamped = (word & ~kArrivalMask) | arrival;
  for (int i = 0; i < 4; ++i) {
    header[i] = static_cast<std::uint8_t>(stamped >> (24 - 8 * i));
  }
}

}  // namespace ipplay
