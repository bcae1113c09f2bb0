// SPDX-License-Identifier: MIT
#include "host/measure/figures/pcr_tracker.h"

#include <gtest/gtest.h>

namespace ipplay::measure {
namespace {

// A stream of 10 Mbit/s: a packet of 188 bytes lasts 150.4 us, 4060.8 ticks of 27 MHz. A PCR in
// every 100th packet comes every 15.04 ms, 406,080 ticks.
constexpr std::int64_t kIntervalNs = 15'040'000;
constexpr std::uint64_t kIntervalTicks = 406'080;
constexpr std::uint64_t kIntervalBytes = 18'800;
constexpr std::uint64_t kModulus = (std::uint64_t{1} << 33) * 300;
constexpr std::uint64_t kJump = 100'000'000;

PcrSample Sample(std::uint64_t number, std::uint64_t first_pcr = 0) {
  PcrSample sample;
  sample.pcr = (first_pcr + number * kIntervalTicks) % kModulus;
  sample.arrival_ns = static_cast<std::int64_t>(number) * kIntervalNs;
  sample.byte_index = number * kIntervalBytes;
  return sample;
}

TEST(PcrTracker, TellsWhatIsWrong) {
  using Change = void (*)(std::uint64_t number, PcrSample & sample);
  const struct {
    const char* name;
    Change change;
    double accuracy_ns, arrival_ns, offset_ppm;
    std::uint64_t discontinuities;
    double tolerance_ns;  // of the arrival
  } cases[] = {
      {"nothing, and the PCR wraps on the way", [](auto, auto&) {}, 0, 0, 0, 0, 1},
      {"a PCR 1 us ahead", [](auto i, auto& s) { s.pcr += i == 150 ? 27 : 0; }, 1000, 1000, 0, 0,
       1},
      {"a datagram 50 us late", [](auto i, auto& s) { s.arrival_ns += i == 150 ? 50'000 : 0; }, 0,
       50'000, 0, 0, 50},
      {"a clock 30 ppm slow", [](auto, auto& s) { s.arrival_ns += s.arrival_ns * 30 / 1'000'000; },
       0, 0, 30, 0, 5},
      {"packets of a datagram that arrived together",
       [](auto i, auto& s) {
         // In turn the first and the sixth packet of their datagrams, 940 bytes apart.
         const std::uint64_t offset = i % 2 * 940;
         s.byte_index += offset;
         s.byte_offset = static_cast<std::int64_t>(offset);
         s.pcr = (s.pcr + offset * kIntervalTicks / kIntervalBytes) % kModulus;
       },
       0, 0, 0, 0, 100},
      {"a jump", [](auto i, auto& s) { s.pcr = (s.pcr + (i < 150 ? 0 : kJump)) % kModulus; }, 0, 0,
       0, 1, 1},
      {"an announced jump",
       [](auto i, auto& s) {
         s.pcr = (s.pcr + (i < 150 ? 0 : kJump)) % kModulus;
         s.discontinuity = i == 150;
       },
       0, 0, 0, 0, 1},
      {"a datagram that never came",
       [](auto i, auto& s) {
         s.byte_index -= i < 150 ? 0 : 1316;
         s.epoch = i < 150 ? 0 : 1;
       },
       0, 0, 0, 0, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PcrTracker tracker;
    for (std::uint64_t i = 0; i < 300; ++i) {
      PcrSample sample = Sample(i, kModulus - 100 * kIntervalTicks);
      c.change(i, sample);
      tracker.Add(sample);
    }
    EXPECT_NEAR(tracker.AccuracySpread(), c.accuracy_ns, 0.1);
    EXPECT_NEAR(tracker.ArrivalSpread(), c.arrival_ns, c.tolerance_ns);
    EXPECT_NEAR(tracker.FrequencyOffsetPpm(), c.offset_ppm, 0.01);
    EXPECT_EQ(tracker.DiscontinuityErrors(), c.discontinuities);
    EXPECT_EQ(tracker.RepetitionErrors(), 0U);
    EXPECT_NEAR(tracker.BitRate(), 10e6, 5);
  }
}

TEST(PcrTracker, CountsRareOnes) {
  PcrTracker tracker;
  for (const std::uint64_t number : {0U, 1U, 2U, 5U, 6U}) {
    tracker.Add(Sample(number));
  }
  EXPECT_EQ(tracker.RepetitionErrors(), 1U);  // 45.12 ms
  PcrSample standing = Sample(7);
  standing.pcr = Sample(6).pcr;
  tracker.Add(standing);
  EXPECT_EQ(tracker.DiscontinuityErrors(), 1U);
}

}  // namespace
}  // namespace ipplay::measure
