// SPDX-License-Identifier: MIT
#include "host/measure/figures/pcr_tracker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "ts_builder.h"

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
       0, 0, -30, 0, 5},
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
    EXPECT_NEAR(tracker.AccuracySpread().value(), c.accuracy_ns, 0.1);
    EXPECT_NEAR(tracker.ArrivalSpread().value(), c.arrival_ns, c.tolerance_ns);
    EXPECT_NEAR(tracker.FrequencyOffsetPpm().value(), c.offset_ppm, 0.01);
    EXPECT_EQ(tracker.DiscontinuityErrors(), c.discontinuities);
    EXPECT_EQ(tracker.RepetitionErrors(), 0U);
    EXPECT_NEAR(tracker.BitRate().value(), 10e6, 5);
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

// Where the clock jumps, arrivals give the interval: 940 bytes within a datagram are 752 us.
TEST(PcrTracker, TakesTheIntervalAtAJumpFromArrivalsAndBytes) {
  const struct {
    std::uint64_t last_offset, next_offset;
    std::int64_t apart_ns;
    std::uint64_t errors;
  } cases[] = {{0, 0, 39'900'000, 0},
               {0, 0, 40'100'000, 1},
               {0, 940, 39'900'000, 1},
               {940, 0, 40'100'000, 0}};
  for (const auto& c : cases) {
    PcrTracker tracker;
    for (std::uint64_t i = 0; i < 5; ++i) {
      tracker.Add(Sample(i));
    }
    PcrSample last = Sample(5);
    last.byte_index += c.last_offset;
    last.byte_offset = static_cast<std::int64_t>(c.last_offset);
    last.pcr += c.last_offset * kIntervalTicks / kIntervalBytes;
    tracker.Add(last);
    PcrSample next = Sample(7, kJump);
    next.arrival_ns = last.arrival_ns + c.apart_ns;
    next.byte_offset = static_cast<std::int64_t>(c.next_offset);
    next.discontinuity = true;
    tracker.Add(next);
    EXPECT_EQ(tracker.RepetitionErrors(), c.errors) << c.apart_ns;
  }
}

TEST(PcrTracker, FitsTheRateThatSuitsTheClockBest) {
  // Errors of up to 13 ticks (481 ns) either way: what is compliant must not look otherwise.
  for (unsigned seed = 0; seed < 8; ++seed) {
    std::mt19937 random(seed);
    PcrTracker tracker;
    int low = 0;
    int high = 0;
    for (std::uint64_t i = 0; i < 300; ++i) {
      const int error = static_cast<int>(random() % 27) - 13;
      low = std::min(low, error);
      high = std::max(high, error);
      PcrSample sample = Sample(i, 100);
      sample.pcr += static_cast<std::uint64_t>(error);
      tracker.Add(sample);
    }
    const double truth = (high - low) * 1000 / 27.0;
    EXPECT_LE(tracker.AccuracySpread().value(), truth + 0.01);
    EXPECT_GE(tracker.AccuracySpread().value(), truth * 0.96);
    tracker.Finish();
    EXPECT_EQ(tracker.AccuracyErrors(), 0U);
  }
}

// Peak to peak of arrivals against PCRs, a line of least squares taken off.
double SpreadOf(const std::vector<double>& x, const std::vector<double>& y) {
  double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    n += 1, sx += x[i], sy += y[i], sxx += x[i] * x[i], sxy += x[i] * y[i];
  }
  const double slope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
  double low = INFINITY;
  double high = -INFINITY;
  for (std::size_t i = 0; i < x.size(); ++i) {
    low = std::min(low, y[i] - slope * x[i]);
    high = std::max(high, y[i] - slope * x[i]);
  }
  return high - low;
}

// Up to 30 ms.
std::int64_t Scattered(int datagram) {
  return std::int64_t{datagram} * datagram * 7919 % 30'011 * 1000;
}

TEST(PcrTracker, MeasuresArrivalAcrossLossAndDisorder) {
  const struct {
    const char* name;
    std::function<std::int64_t(int)> delay_ns;
    std::function<bool(int)> lose;
    double clock = 1;
    bool accuracy = true;  // can be measured
  } cases[] = {
      {"slow jitter", [](int d) { return 25'000'000 + std::llround(25e6 * std::sin(d * 0.003)); },
       [](int) { return false; }},
      {"the same with loss",
       [](int d) { return 25'000'000 + std::llround(25e6 * std::sin(d * 0.003)); },
       [](int d) { return d % 20 == 7; }, 1, false},
      {"every seventh datagram up to 30 ms late",
       [](int d) { return d % 7 == 0 ? Scattered(d) : 0; }, [](int) { return false; }, 1, false},
      {"every datagram up to 30 ms late", Scattered, [](int) { return false; }, 1, false},
      {"three seconds lost", [](int d) { return d % 1000 * 5000; },
       [](int d) { return d > 3000 && d < 6000; }},
      {"a clock 30 ppm fast", [](int) { return 0; }, [](int) { return false; }, 1 + 30e-6},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testing::TsRun run{
        .slots = testing::GoodSlots(), .lose = c.lose, .delay_ns = c.delay_ns, .clock = c.clock};
    run.slots.push_back({.pid = 0x101, .every = 7, .phase = 6});
    TsAnalysis analysis;
    Play(run, analysis);
    std::vector<double> x;
    std::vector<double> y;
    for (int i = 2; i < testing::kTenSeconds; i += 210) {
      if (c.lose(i / 7)) {
        continue;
      }
      // The datagram's first byte by the clock, and the delay that it met.
      const std::int64_t sent_ns = i / 7 * 7 * testing::kPacketNs;
      x.push_back(static_cast<double>(sent_ns) * c.clock);
      y.push_back(static_cast<double>(sent_ns + c.delay_ns(i / 7)) - x.back());
    }
    const PcrTracker& clock = *analysis.ReferenceClock();
    EXPECT_NEAR(clock.ArrivalSpread().value(), SpreadOf(x, y), 0.003 * SpreadOf(x, y) + 100);
    EXPECT_EQ(clock.AccuracySpread().has_value(), c.accuracy);
    if (c.clock != 1) {
      EXPECT_NEAR(clock.FrequencyOffsetPpm().value(), 30, 0.01);
    }
  }
}

TEST(PcrTracker, TellsLateAndRepeatedOnesFromJumps) {
  // The numbers of the PCRs as they come.
  const struct {
    std::vector<std::uint64_t> numbers;
    std::uint64_t discontinuities, late, repeated;
  } cases[] = {{{0, 1, 3, 2, 4, 5}, 0, 1, 0},
               {{0, 1, 2, 2, 3, 4}, 0, 0, 1},
               {{40, 41, 42, 10, 11, 12}, 1, 0, 0}};
  for (const auto& c : cases) {
    PcrTracker tracker;
    for (const std::uint64_t number : c.numbers) {
      tracker.Add(Sample(number));
    }
    tracker.Finish();
    EXPECT_EQ(tracker.DiscontinuityErrors(), c.discontinuities);
    EXPECT_EQ(tracker.Late(), c.late);
    EXPECT_EQ(tracker.Repeated(), c.repeated);
  }
}

TEST(PcrTracker, SaysNothingOfWhatWasNotMeasured) {
  PcrTracker tracker;
  tracker.Add(Sample(0));
  tracker.Add(Sample(1));
  EXPECT_FALSE(tracker.AccuracySpread());
  EXPECT_FALSE(tracker.ArrivalSpread());
  EXPECT_FALSE(tracker.FrequencyOffsetPpm());
}

}  // namespace
}  // namespace ipplay::measure
