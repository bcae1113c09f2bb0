#include "host/restamper.h"

#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/ts.h>

#include "host/pcr_rate.h"

namespace ipplay {
namespace {

constexpr std::uint16_t kNullPid = 0x1fff;
constexpr std::uint64_t kTimestampModulus = std::uint64_t{1} << 33;
constexpr std::uint32_t kArrivalMask = 0x3fffffff;

bool HasFlags(const std::uint8_t* packet) {
  return ts_has_adaptation(packet) && ts_get_adaptation(packet) > 0;
}

// ISO/IEC 13818-1 table 2-21: these PES packets have no header with time stamps.
bool HasPesHeader(std::uint8_t stream_id) {
  switch (stream_id) {
    case PES_STREAM_ID_PSM:
    case PES_STREAM_ID_PADDING:
    case PES_STREAM_ID_PRIVATE_2:
    case PES_STREAM_ID_ECM:
    case PES_STREAM_ID_EMM:
    case PES_STREAM_ID_DSMCC:
    case PES_STREAM_ID_H222_1_E:
    case PES_STREAM_ID_PSD:
      return false;
    default:
      return true;
  }
}

}  // namespace

Restamper::Restamper(PacketFormat format, std::uint64_t start_offset, std::uint64_t round_ticks)
    : format_(format), offset_(start_offset % kPcrModulus), round_ticks_(round_ticks) {}

void Restamper::StartNextRound() {
  first_round_ = false;
  offset_ = (offset_ + round_ticks_) % kPcrModulus;
  for (Counter& counter : counters_) counter.started_round = false;
}

void Restamper::Restamp(std::uint8_t* packet) {
  std::uint8_t* ts = packet + format_.SyncOffset();
  if (!ts_validate(ts) || ts_get_transporterror(ts)) return;
  RestampCounter(ts);
  RestampClock(ts);
  RestampPes(ts);
  if (format_.SyncOffset() == 4) RestampArrival(packet);
}

// The first packet of a PID in a round goes on from the last one of the round before; the shift
// that this takes then holds for the whole round, so that gaps and repetitions in the file stay.
void Restamper::RestampCounter(std::uint8_t* packet) {
  const std::uint16_t pid = ts_get_pid(packet);
  if (pid == kNullPid) return;
  Counter& counter = counters_[pid];
  if (!counter.started_round) {
    if (counter.started) {
      const int next = counter.last + (ts_has_payload(packet) ? 1 : 0);
      counter.shift = static_cast<std::uint8_t>((next - ts_get_cc(packet)) & 0xf);
    }
    // A file may announce its own start as a discontinuity; a later round has none.
    if (!first_round_ && HasFlags(packet)) tsaf_clear_discontinuity(packet);
    counter.started = counter.started_round = true;
  }
  counter.last = static_cast<std::uint8_t>((ts_get_cc(packet) + counter.shift) & 0xf);
  ts_set_cc(packet, counter.last);
}

void Restamper::RestampClock(std::uint8_t* packet) const {
  const auto pcr = PcrOf(packet);
  if (!pcr) return;
  const std::uint64_t shifted = (*pcr + offset_) % kPcrModulus;
  tsaf_set_pcr(packet, shifted / 300);
  tsaf_set_pcrext(packet, static_cast<std::uint16_t>(shifted % 300));
}

void Restamper::RestampPes(std::uint8_t* packet) const {
  if (!ts_get_unitstart(packet) || ts_get_scrambling(packet) != 0) return;
  std::uint8_t* pes = ts_payload(packet);
  const auto room = packet + TS_SIZE - pes;
  if (room < PES_HEADER_SIZE_PTS || !pes_validate(pes) || !HasPesHeader(pes_get_streamid(pes)) ||
      !pes_validate_header(pes) || !pes_has_pts(pes)) {
    return;
  }
  // Both time stamps move, or none: a header of which only the PTS can be reached stays.
  const bool has_dts = pes_has_dts(pes);
  if (has_dts && room < PES_HEADER_SIZE_PTSDTS) return;
  if (pes_get_headerlength(pes) < (has_dts ? 2 : 1) * PES_HEADER_TS_SIZE) return;
  pes_set_pts(pes, Shifted(pes_get_pts(pes)));
  if (has_dts) pes_set_dts(pes, Shifted(pes_get_dts(pes)));
}

std::uint64_t Restamper::Shifted(std::uint64_t timestamp_90khz) const {
  return (timestamp_90khz + offset_ / 300) % kTimestampModulus;
}

// IEC 62481-2: two permission bits, then 30 bits of a 27 MHz arrival clock.
void Restamper::RestampArrival(std::uint8_t* header) const {
  const std::uint32_t word = std::uint32_t{header[0]} << 24 | std::uint32_t{header[1]} << 16 |
                             std::uint32_t{header[2]} << 8 | std::uint32_t{header[3]};
  const std::uint32_t arrival = (word + static_cast<std::uint32_t>(offset_)) & kArrivalMask;
  const std::uint32_t stamped = (word & ~kArrivalMask) | arrival;
  for (int i = 0; i < 4; ++i) header[i] = static_cast<std::uint8_t>(stamped >> (24 - 8 * i));
}

}  // namespace ipplay
