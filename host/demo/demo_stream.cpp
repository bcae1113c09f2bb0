// SPDX-License-Identifier: MIT
#include "host/demo/demo_stream.h"

#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <array>
#include <span>

#include "host/measure/figures/psi_section.h"
#include "host/stream/pcr.h"

namespace ipplay::measure {
namespace {

constexpr std::uint16_t kPatPid = 0;
constexpr std::uint16_t kPmtPid = 0x1000;
constexpr std::uint16_t kContentPid = 0x100;
constexpr std::uint16_t kNullPid = 0x1FFF;
constexpr double kTableInterval = 0.1;   // seconds
constexpr double kClockInterval = 0.02;  // seconds
constexpr std::uint64_t kNullEvery = 16;
constexpr std::uint64_t kPtsAhead = 90'000 / 2;

// ISO/IEC 13818-1, 2.4.4.3 and 2.4.4.8, without their check bytes: programme 1 on the PMT's PID,
// and in it private data, which carries the clock, on the content's PID.
constexpr std::array<std::uint8_t, 12> kPat{0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1,
                                            0x00, 0x00, 0x00, 0x01, 0xF0, 0x00};
constexpr std::array<std::uint8_t, 17> kPmt{0x02, 0xB0, 0x12, 0x00, 0x01, 0xC1, 0x00, 0x00, 0xE1,
                                            0x00, 0xF0, 0x00, 0x06, 0xE1, 0x00, 0xF0, 0x00};

class StreamMaker {
 public:
  explicit StreamMaker(double bit_rate) : packets_per_second_(bit_rate / (8 * TS_SIZE)) {}

  void AddPackets(std::uint64_t count) {
    stream_.reserve(count * TS_SIZE);
    const std::uint64_t table_every = Packets(kTableInterval);
    const std::uint64_t clock_every = Packets(kClockInterval);
    for (std::uint64_t i = 0; i < count; ++i) {
      if (i % table_every == 0) {
        AddTable(kPatPid, pat_counter_, kPat);
      } else if (i % table_every == 1) {
        AddTable(kPmtPid, pmt_counter_, kPmt);
      } else if (i % clock_every == 2) {
        AddClock(i);
      } else if (i % kNullEvery == 3) {
        AddContent(i, NewPacket(kNullPid, null_counter_) + TS_HEADER_SIZE);
      } else {
        AddContent(i, NewPacket(kContentPid, content_counter_) + TS_HEADER_SIZE);
      }
    }
  }
  std::vector<std::uint8_t> Take() { return std::move(stream_); }

 private:
  std::uint64_t Packets(double seconds) const {
    return std::max<std::uint64_t>(4, static_cast<std::uint64_t>(seconds * packets_per_second_));
  }

  std::uint8_t* NewPacket(std::uint16_t pid, std::uint8_t& counter) {
    stream_.resize(stream_.size() + TS_SIZE, 0xFF);
    std::uint8_t* packet = stream_.data() + stream_.size() - TS_SIZE;
    ts_init(packet);
    ts_set_pid(packet, pid);
    ts_set_payload(packet);
    ts_set_cc(packet, counter);
    counter = (counter + 1) & 0x0F;
    return packet;
  }

  void AddTable(std::uint16_t pid, std::uint8_t& counter, std::span<const std::uint8_t> section) {
    std::uint8_t* packet = NewPacket(pid, counter);
    ts_set_unitstart(packet);
    packet[TS_HEADER_SIZE] = 0;  // the section follows at once
    std::uint8_t* end = std::ranges::copy(section, packet + TS_HEADER_SIZE + 1).out;
    const std::uint32_t check = MpegCrc32(section);
    for (int shift = 24; shift >= 0; shift -= 8) {
      *end++ = static_cast<std::uint8_t>(check >> shift);
    }
  }

  void AddClock(std::uint64_t number) {
    const auto pcr = static_cast<std::uint64_t>(static_cast<double>(number) / packets_per_second_ *
                                                double{kPcrHz});
    std::uint8_t* packet = NewPacket(kContentPid, content_counter_);
    ts_set_unitstart(packet);
    ts_set_adaptation(packet, TS_HEADER_SIZE_PCR - TS_HEADER_SIZE - 1);
    WritePcr(packet, pcr);
    std::uint8_t* pes = packet + TS_HEADER_SIZE_PCR;
    pes_init(pes);
    pes_set_streamid(pes, PES_STREAM_ID_PRIVATE_1);
    pes_set_length(pes, 0);
    pes_set_headerlength(pes, PES_HEADER_SIZE_PTS - PES_HEADER_SIZE_NOPTS);
    pes_set_pts(pes, pcr / 300 + kPtsAhead);
    AddContent(number, pes + PES_HEADER_SIZE_PTS);
  }

  // Fills the rest of the packet with pseudo-random bytes seeded with its number.
  void AddContent(std::uint64_t number, std::uint8_t* begin) {
    std::uint64_t state = (number + 1) * 0x9E3779B97F4A7C15U;
    for (std::uint8_t* at = begin; at < stream_.data() + stream_.size(); ++at) {
      state ^= state >> 12;
      state ^= state << 25;
      state ^= state >> 27;
      *at = static_cast<std::uint8_t>(state >> 32);
    }
  }

  double packets_per_second_;
  std::vector<std::uint8_t> stream_;
  std::uint8_t pat_counter_ = 0;
  std::uint8_t pmt_counter_ = 0;
  std::uint8_t content_counter_ = 0;
  std::uint8_t null_counter_ = 0;
};

}  // namespace

std::vector<std::uint8_t> MakeDemoStream(double bit_rate, std::chrono::nanoseconds length) {
  StreamMaker maker(bit_rate);
  const double seconds = static_cast<double>(length.count()) * 1e-9;
  maker.AddPackets(
      std::max<std::uint64_t>(100, static_cast<std::uint64_t>(seconds * bit_rate / (8 * TS_SIZE))));
  return maker.Take();
}

}  // namespace ipplay::measure
