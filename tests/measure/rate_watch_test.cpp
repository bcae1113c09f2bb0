// SPDX-License-Identifier: MIT
#include "host/measure/figures/rate_watch.h"

#include <gtest/gtest.h>

#include <vector>

namespace ipplay::measure {
namespace {

constexpr std::uint32_t kDatagram = 1316;

std::vector<std::uint64_t> Steady(std::size_t seconds, std::uint64_t bytes) {
  return std::vector<std::uint64_t>(seconds, bytes);
}

TEST(RateWatch, ReportsTheFirstSecondThatLeavesWhatTheRateHasBeen) {
  using Seconds = std::vector<std::uint64_t>;
  const struct {
    const char* name;
    Seconds before;
    Seconds then;
    std::vector<std::size_t> reported;  // places in `then`
  } kCases[] = {
      {"a tenth is none", Steady(10, 1'000'000), {900'000, 1'100'000}, {}},
      {"more than a tenth", Steady(10, 1'000'000), {899'999, 1'000'000, 1'100'001}, {0, 2}},
      {"nothing to compare with", Steady(9, 1'000'000), {500'000, 1'000'000}, {}},
      {"a stay away is one", Steady(10, 1'000'000), {500'000, 500'000, 2'000'000, 1'000'000}, {0}},
      {"ten seconds are the new rate",
       Steady(10, 1'000'000),
       {5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 1'000'000},
       {0, 10}},
      {"as uneven as before",
       {500'000, 1'500'000, 500'000, 1'500'000, 500'000, 1'500'000, 500'000, 1'500'000, 500'000,
        1'500'000},
       {2'000'000},
       {}},
      {"more uneven than before",
       {500'000, 1'500'000, 500'000, 1'500'000, 500'000, 1'500'000, 500'000, 1'500'000, 500'000,
        1'500'000},
       {2'000'001},
       {0}},
      {"two datagrams of few", Steady(10, 3 * kDatagram), {5 * kDatagram, kDatagram}, {}},
      {"three of few", Steady(10, 3 * kDatagram), {6 * kDatagram}, {0}},
  };
  for (const auto& c : kCases) {
    RateWatch watch;
    for (const std::uint64_t bytes : c.before) {
      EXPECT_FALSE(watch.Add(bytes, kDatagram)) << c.name;
    }
    std::vector<std::size_t> reported;
    for (std::size_t i = 0; i < c.then.size(); ++i) {
      if (watch.Add(c.then[i], kDatagram)) {
        reported.push_back(i);
      }
    }
    EXPECT_EQ(reported, c.reported) << c.name;
  }
}

}  // namespace
}  // namespace ipplay::measure
