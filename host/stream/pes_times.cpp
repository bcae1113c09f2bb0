// SPDX-License-Identifier: MIT
#include "host/stream/pes_times.h"

#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <array>

namespace ipplay {
namespace {

constexpr std::uint8_t kFirstVideo = 0xE0;  // stream id
constexpr std::uint64_t kLongestStep = 10 * std::uint64_t{90'000};

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

std::optional<PesStamps> FindPesStamps(std::uint8_t* packet) {
  if (!ts_get_unitstart(packet) || ts_get_scrambling(packet) != 0) {
    return std::nullopt;
  }
  std::uint8_t* pes = ts_payload(packet);
  const auto room = packet + TS_SIZE - pes;
  if (room < PES_HEADER_SIZE_PTS || !pes_validate(pes) || !HasPesHeader(pes_get_streamid(pes)) ||
      !pes_validate_header(pes) || !pes_has_pts(pes)) {
    return std::nullopt;
  }
  const bool has_dts = pes_has_dts(pes);
  if (has_dts && room < PES_HEADER_SIZE_PTSDTS) {
    return std::nullopt;
  }
  if (pes_get_headerlength(pes) < (has_dts ? 2 : 1) * PES_HEADER_TS_SIZE) {
    return std::nullopt;
  }
  return PesStamps{pes, has_dts};
}

void PesTimes::Add(const std::uint8_t* packet) {
  if (!ts_get_unitstart(packet)) {
    return;
  }
  std::array<std::uint8_t, TS_SIZE> copy{};
  std::copy_n(packet, copy.size(), copy.begin());
  const auto stamps = FindPesStamps(copy.data());
  if (!stamps) {
    return;
  }
  const std::uint64_t time = stamps->has_dts ? pes_get_dts(stamps->pes) : pes_get_pts(stamps->pes);
  Times& times = times_[ts_get_pid(packet)];
  const std::uint64_t step = (time + kPesTimeModulus - times.last) % kPesTimeModulus;
  if (times.skips) {
    times.skipped += step;
  } else if (times.packets > 0) {
    times.is_steady = times.is_steady && step <= kLongestStep;
    times.span += step;
    times.bytes += times.last_bytes;
  }
  times.last = time;
  times.is_video = (pes_get_streamid(stamps->pes) & 0xF0) == kFirstVideo;
  times.last_bytes = pes_get_length(stamps->pes);
  times.packets += times.skips ? 0 : 1;
  times.skips = false;
}

void PesTimes::Skip() {
  for (auto& [pid, times] : times_) {
    times.skips = true;
  }
}

// All pictures last equally long. The last audio packet is often shorter than the others and lasts
// in proportion to its length; video packets need not give a length.
std::uint64_t PesTimes::LastOne(const Times& times) {
  const std::uint64_t others = times.packets - 1;
  const bool lengths_tell = times.last_bytes > 0 && times.bytes > 0 && !times.is_video;
  if (!lengths_tell) {
    return (times.span + others - 1) / others;
  }
  return (times.span * times.last_bytes + times.bytes - 1) / times.bytes;
}

std::uint64_t PesTimes::Ticks() const {
  std::uint64_t longest = 0;
  for (const auto& [pid, times] : times_) {
    if (times.is_steady && times.packets > 1) {
      longest = std::max(longest, times.skipped + times.span + LastOne(times));
    }
  }
  return longest;
}

}  // namespace ipplay
