// SPDX-License-Identifier: MIT
// The share of a machine: all shares together are the whole, and they are nearly equal; with one
// machine more, the channels that move all go to that one.
#include "host/lineup/part.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace ipplay {
namespace {

constexpr int kChannels = 10'000;

std::uint32_t PartOf(const std::string& channel, std::uint32_t of) {
  std::uint32_t found = 0;
  for (std::uint32_t number = 1; number <= of; ++number) {
    if (Part{number, of}.Has(channel)) {
      EXPECT_EQ(found, 0U) << channel << " is in two parts of " << of;
      found = number;
    }
  }
  EXPECT_NE(found, 0U) << channel << " is in no part of " << of;
  return found;
}

TEST(PartTest, OneMachineMoreTakesItsShareAndMovesNothingElse) {
  for (const std::uint32_t of : {1U, 2U, 7U, 100U}) {
    std::vector<int> counts(of + 2);
    for (int n = 0; n < kChannels; ++n) {
      const std::string name = fmt::format("channel {:05}", n);
      const std::uint32_t before = PartOf(name, of);
      const std::uint32_t after = PartOf(name, of + 1);
      EXPECT_TRUE(after == before || after == of + 1) << name << " of " << of;
      ++counts[after];
    }
    const double share = static_cast<double>(kChannels) / (of + 1);
    for (std::uint32_t number = 1; number <= of + 1; ++number) {
      // Six standard deviations of a draw by lot.
      EXPECT_NEAR(counts[number], share, 6 * std::sqrt(share)) << number << " of " << of + 1;
    }
  }
}

}  // namespace
}  // namespace ipplay
