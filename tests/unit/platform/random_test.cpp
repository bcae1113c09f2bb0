// SPDX-License-Identifier: MIT
#include "platform/random.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace ipplayout::platform {
namespace {

TEST(RandomTest, ReachesItsWholeRangeAndNothingElse) {
  std::vector<int> counts(kRandomMax + 1);
  SeedRandom(9);
  for (int draw = 0; draw < 100 * 32768; ++draw) {
    ++counts.at(NextRandom());
  }
  for (const int count : counts) {
    ASSERT_NEAR(count, 100, 70);  // seven standard deviations
  }
}

// The host's own generator is to be left alone.
// NOLINTBEGIN(cert-msc30-c,cert-msc50-cpp)
TEST(RandomTest, IsTheLibrarysOwn) {
  SeedRandom(1);
  std::srand(1);
  const std::uint32_t ours = NextRandom();
  const int theirs = std::rand();
  std::srand(1);
  SeedRandom(1);
  EXPECT_EQ(std::rand(), theirs);
  EXPECT_EQ(NextRandom(), ours);
}
// NOLINTEND(cert-msc30-c,cert-msc50-cpp)

}  // namespace
}  // namespace ipplayout::platform
