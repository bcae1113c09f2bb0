// SPDX-License-Identifier: MIT
#include "platform/random.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace ipplayout::platform {
namespace {

TEST(RandomTest, ReachesItsWholeRangeAndNothingElse) {
  std::vector<int> counts(kRandomMax + 1);
  ProcessRandom().Seed(9);
  for (int draw = 0; draw < 100 * 32768; ++draw) {
    ++counts.at(ProcessRandom().Next());
  }
  for (const int count : counts) {
    ASSERT_NEAR(count, 100, 70);  // seven standard deviations
  }
}

// The host's own generator is to be left alone.
// NOLINTBEGIN(cert-msc30-c,cert-msc50-cpp)
TEST(RandomTest, IsTheLibrarysOwn) {
  ProcessRandom().Seed(1);
  std::srand(1);
  const std::uint32_t ours = ProcessRandom().Next();
  const int theirs = std::rand();
  std::srand(1);
  ProcessRandom().Seed(1);
  EXPECT_EQ(std::rand(), theirs);
  EXPECT_EQ(ProcessRandom().Next(), ours);
}
// NOLINTEND(cert-msc30-c,cert-msc50-cpp)

}  // namespace
}  // namespace ipplayout::platform
