// SPDX-License-Identifier: MIT
#include "host/stream/null_filler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "host/stream/pcr.h"
#include "tests/host/ts_builder.h"

namespace ipplay {
namespace {

constexpr std::uint16_t kClock = 0x100;
constexpr std::uint16_t kOtherClock = 0x200;  // of a second programme
constexpr std::uint16_t kNull = 0x1FFF;
constexpr std::uint64_t kFirst = kPcrModulus - 20'000'000;  // the clock wraps within a second
constexpr std::uint64_t kOther = 5'000'000'000;             // the other clock, at the time 0
// Behind the last PCR the rate before it goes on: the last two stretches of each stream are equal.

struct Made {
  std::vector<std::uint8_t> bytes;
  std::vector<std::uint64_t> ticks;  // when each packet is due, of 27 MHz
};

// Stretches of 40 ms with as many packets each, a PCR of both clocks in each; every `nulls`-th
// packet is a null packet.
Made MakeVariable(const std::vector<int>& stretches, int nulls) {
  constexpr std::uint64_t kStretch = kPcrHz / 25;
  Made made;
  std::uint8_t counter = 0;
  for (std::size_t s = 0; s < stretches.size(); ++s) {
    for (int i = 0; i < stretches[s]; ++i) {
      const std::uint64_t ticks = s * kStretch + kStretch * static_cast<std::uint64_t>(i) /
                                                     static_cast<std::uint64_t>(stretches[s]);
      PacketSpec spec{.pid = 0x111, .counter = counter++};
      if (i == 0) {
        spec = {.pid = kClock, .pcr = (kFirst + ticks) % kPcrModulus};
      } else if (i == 2) {
        spec = {.pid = kOtherClock, .pcr = kOther + ticks};
      } else if (i % nulls == 0) {
        spec = {.pid = kNull};
      }
      const TsPacket packet = MakePacket(spec);
      made.bytes.insert(made.bytes.end(), packet.begin(), packet.end());
      made.ticks.push_back(ticks);
    }
  }
  return made;
}

std::uint16_t PidOf(const std::uint8_t* packet) {
  return static_cast<std::uint16_t>((packet[1] & 0x1FU) << 8 | packet[2]);
}

std::vector<std::uint8_t> Fill(NullFiller& filler, const std::vector<std::uint8_t>& bytes) {
  std::vector<std::uint8_t> filled;
  const auto emit = [&filled](NullFiller::Bytes more) {
    filled.insert(filled.end(), more.begin(), more.end());
    return true;
  };
  constexpr std::size_t kPart = 188 * 7;
  for (std::size_t at = 0; at < bytes.size(); at += kPart) {
    filler.Run(std::span(bytes).subspan(at, std::min(kPart, bytes.size() - at)), emit);
  }
  filler.Finish(emit);
  return filled;
}

// Every packet in its slot, in order and unchanged; every PCR says what its place does.
TEST(NullFiller, PutsEachPacketAndItsPcrIntoTheRow) {
  const std::vector<int> quiet_and_busy{40, 40, 90, 200, 17, 40, 3, 120, 120, 40, 40, 40, 80, 80};
  const struct {
    int nulls;
    double packets_per_second;
    double most_slots;  // that a packet waits
  } cases[] = {{1000, 5000, 1},
               {1000, 20'000.5, 1},
               {4, 4200, 1.5}};  // has room without null packets, but not for three in a row
  for (const auto& c : cases) {
    const Made made = MakeVariable(quiet_and_busy, c.nulls);
    const auto packets = static_cast<double>(made.ticks.size());
    NullFiller filler({188}, {kClock, packets / (14 * 0.04), c.packets_per_second});
    const auto filled = Fill(filler, made.bytes);
    std::size_t next = 0;
    const auto skip_nulls = [&] {
      while (next < made.ticks.size() && PidOf(&made.bytes[next * 188]) == kNull) {
        ++next;
      }
    };
    for (std::size_t slot = 0; slot < filled.size() / 188; ++slot) {
      const std::uint8_t* const packet = &filled[slot * 188];
      if (PidOf(packet) == kNull) {
        continue;
      }
      skip_nulls();
      ASSERT_LT(next, made.ticks.size());
      const double place = static_cast<double>(slot) / c.packets_per_second * kPcrHz;
      const double behind = place - static_cast<double>(made.ticks[next]);
      EXPECT_GT(behind, -2) << slot;
      EXPECT_LT(behind, kPcrHz / c.packets_per_second * c.most_slots + 2) << slot;
      const bool has_clock = PidOf(packet) != 0x111;
      if (has_clock) {
        const std::uint64_t start = PidOf(packet) == kClock ? kFirst : kOther;
        const auto since = (PcrAt(packet) + kPcrModulus - start) % kPcrModulus;
        EXPECT_NEAR(static_cast<double>(since), place, 2) << slot;
      }
      const std::size_t from = has_clock ? 12 : 0;  // behind the PCR
      EXPECT_TRUE(std::equal(packet + from, packet + 188, &made.bytes[next * 188 + from])) << slot;
      ++next;
    }
    skip_nulls();
    EXPECT_EQ(next, made.ticks.size());
  }
}

TEST(NullFiller, LetsPacketsWaitThatAreTooMany) {
  // 400 packets in 40 ms into a row of 5,000 a second: the last one waits for 200 - 1 slots.
  const Made made = MakeVariable({50, 400, 50, 50, 50, 50, 50, 50}, 1000);
  NullFiller filler({188}, {kClock, 2000, 5000});
  const auto filled = Fill(filler, made.bytes);
  EXPECT_NEAR(static_cast<double>(filler.LongestWait().count()), 40e6, 1e6);
  EXPECT_EQ(filled.size() / 188, 8 * 200 - 3);  // 50 packets in 40 ms: the last one 0.8 ms before
}

TEST(NullFiller, KeepsArrivalTimesOfPacketsTrue) {
  const Made made = MakeVariable({40, 80, 80}, 1000);
  std::vector<std::uint8_t> stamped;
  for (std::size_t i = 0; i < made.ticks.size(); ++i) {
    const auto stamp = static_cast<std::uint32_t>(0x3FFFF000 + made.ticks[i]) & 0x3FFFFFFF;
    for (int shift = 24; shift >= 0; shift -= 8) {
      stamped.push_back(static_cast<std::uint8_t>(stamp >> shift));
    }
    stamped.insert(stamped.end(), &made.bytes[i * 188], &made.bytes[i * 188] + 188);
  }
  NullFiller filler({192}, {kClock, 1000, 5000});
  std::vector<std::uint8_t> filled;
  const auto emit = [&filled](NullFiller::Bytes more) {
    filled.insert(filled.end(), more.begin(), more.end());
    return true;
  };
  filler.Run(stamped, emit);
  filler.Finish(emit);
  ASSERT_GT(filled.size(), 192 * 590U);
  for (std::size_t slot = 0; slot < filled.size() / 192; ++slot) {
    const std::uint8_t* const at = &filled[slot * 192];
    const std::uint32_t stamp = std::uint32_t{at[0]} << 24 | at[1] << 16 | at[2] << 8 | at[3];
    EXPECT_EQ(at[4], 0x47);
    EXPECT_NEAR(static_cast<double>((stamp - 0x3FFFF000U) & 0x3FFFFFFF),
                static_cast<double>(slot) / 5000 * kPcrHz, 2 + static_cast<double>(slot) / 100)
        << slot;
  }
}

}  // namespace
}  // namespace ipplay
