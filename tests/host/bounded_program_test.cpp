// SPDX-License-Identifier: MIT
#include "host/base/bounded_program.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

namespace ipplay {
namespace {

constexpr ProgramBounds kBounds{std::chrono::seconds(60), std::uint64_t{1} << 30, 1 << 20};

TEST(BoundedProgram, IsBoundedNotTheProcessThatStartsIt) {
  constexpr std::size_t kLarge = std::size_t{8} << 30;
  void* const room =
      ::mmap(nullptr, kLarge, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(room, MAP_FAILED);
  const auto outcome = RunBounded({.words = {"echo", "text"}, .path = "/bin/echo"}, kBounds);
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->status, 0);
  EXPECT_EQ(outcome->output, "text\n");
  ::munmap(room, kLarge);
}

TEST(BoundedProgram, AFailureIsNoLackOfTime) {
  const auto failed = RunBounded({.words = {"false"}, .path = "/bin/false"}, kBounds);
  ASSERT_TRUE(failed);
  EXPECT_NE(failed->status, 0);
  constexpr ProgramBounds kAtOnce{std::chrono::seconds(0), std::uint64_t{1} << 30, 1 << 20};
  EXPECT_FALSE(RunBounded({.words = {"sleep", "600"}, .path = "/bin/sleep"}, kAtOnce));
}

}  // namespace
}  // namespace ipplay
