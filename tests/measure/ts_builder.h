// SPDX-License-Identifier: MIT
// Whole transport streams for tests: what lies in which packet is known by construction. A packet
// takes 144 us, 3,888 ticks of 27 MHz (10,444,444 bit/s); seven make a datagram of 1.008 ms.
#pragma once

#include <algorithm>
#include <climits>
#include <cmath>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "frame_builder.h"
#include "host/measure/figures/ts_analysis.h"

namespace ipplay::measure::testing {

inline constexpr std::int64_t kPacketNs = 144'000;
inline constexpr std::uint64_t kPacketTicks = 3'888;
inline constexpr int kTenSeconds = 70'000;  // packets; 10.08 s

// A section with its length and check bytes, worked out bit by bit.
inline Bytes SectionBytes(std::uint8_t table_id, std::uint16_t extension, const Bytes& body,
                          std::uint8_t number = 0, std::uint8_t version_and_current = 0xC1) {
  Bytes section{table_id};
  Append16(section, static_cast<std::uint32_t>(0xB000 | (body.size() + 9)));
  Append16(section, extension);
  for (const std::uint8_t byte : {version_and_current, number, number}) {
    section.push_back(byte);
  }
  section.insert(section.end(), body.begin(), body.end());
  std::uint32_t crc = 0xFFFFFFFF;
  for (const std::uint8_t byte : section) {
    for (int bit = 7; bit >= 0; --bit) {
      const bool odd = ((crc >> 31) ^ (byte >> bit & 1)) != 0;
      crc = (crc << 1) ^ (odd ? 0x04C11DB7U : 0);
    }
  }
  Append32(section, crc);
  return section;
}

// As the payload of the packet that it begins in.
inline Bytes Unit(Bytes section) {
  section.insert(section.begin(), 0);
  return section;
}

// What is in every n-th packet.
struct Slot {
  std::uint16_t pid = 0x100;
  int every = 700;
  int phase = 0;
  Bytes payload = {};  // of a unit that starts; none: no start
  bool pcr = false;
  int from = 0;
  int to = INT_MAX;
};

struct TsRun {
  std::vector<Slot> slots;
  int packets = kTenSeconds;
  std::function<void(int packet, Bytes& bytes)> change = [](int, Bytes&) {};
  std::function<bool(int datagram)> lose = [](int) { return false; };
  std::function<std::int64_t(int datagram)> delay_ns = [](int) { return 0; };
  double clock = 1;             // of the PCRs against the arrivals
  int to_packet = kTenSeconds;  // nothing is sent from there on
};

// Feeds the stream in order of arrival, and ends the measurement with the last packet's time.
inline void Play(const TsRun& run, TsAnalysis& analysis) {
  std::map<std::uint16_t, int> counters;
  std::multimap<std::int64_t, Bytes> arrivals;
  Bytes datagram;
  for (int i = 0; i < std::min(run.packets, run.to_packet); ++i) {
    TsFields fields{.pid = 0x1FFF};
    for (const Slot& slot : run.slots) {
      if (i % slot.every == slot.phase && i >= slot.from && i < slot.to) {
        fields = {.pid = slot.pid, .start = !slot.payload.empty(), .payload = slot.payload};
        fields.counter = static_cast<std::uint8_t>(counters[slot.pid]++ & 15);
        if (slot.pcr) {
          fields.pcr = static_cast<std::uint64_t>(std::llround(
              static_cast<double>(static_cast<std::uint64_t>(i) * kPacketTicks) * run.clock));
        }
        break;
      }
    }
    Bytes packet = TsPacketBytes(fields);
    run.change(i, packet);
    datagram.insert(datagram.end(), packet.begin(), packet.end());
    if (i % 7 == 6) {
      if (!run.lose(i / 7)) {
        arrivals.emplace((i - 6) * kPacketNs + run.delay_ns(i / 7), datagram);
      }
      datagram.clear();
    }
  }
  for (const auto& [time_ns, payload] : arrivals) {
    analysis.Add(payload, time_ns, false);
  }
  analysis.Finish(run.packets * kPacketNs);
}

// PAT, and a service 1 with video on PID 0x100, which has the clock, and audio on PID 0x101.
inline const Bytes kPatBody = FromHex("0001 e020");
inline const Bytes kPmtBody = FromHex("e100 f000  1b e100 f000  03 e101 f006 0a04 64657500");
inline const Bytes kVideoPes = FromHex("000001 e0 0000 80 80 05 2100010001");
inline const Bytes kAudioPes = FromHex("000001 c0 0000 80 80 05 2100010001");

inline std::vector<Slot> GoodSlots() {
  return {{.pid = 0, .phase = 0, .payload = Unit(SectionBytes(0x00, 7, kPatBody))},
          {.pid = 0x20, .phase = 1, .payload = Unit(SectionBytes(0x02, 1, kPmtBody))},
          {.pid = 0x100, .every = 210, .phase = 2, .pcr = true},
          {.pid = 0x100, .every = 3500, .phase = 10, .payload = kVideoPes},
          {.pid = 0x101, .every = 3500, .phase = 11, .payload = kAudioPes},
          {.pid = 0x101, .every = 50, .phase = 12}};
}

}  // namespace ipplay::measure::testing
