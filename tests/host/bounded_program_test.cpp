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
  EXPECT_EQ(RunBounded({.words = {"echo", "text"}, .path = "/bin/echo"}, kBounds), "text\n");
  ::munmap(room, kLarge);
}

TEST(BoundedProgram, GivesNothingForAFailure) {
  EXPECT_EQ(RunBounded({.words = {"false"}, .path = "/bin/false"}, kBounds), std::nullopt);
  EXPECT_EQ(RunBounded({.words = {"none"}, .path = "/nowhere"}, kBounds), std::nullopt);
}

}  // namespace
}  // namespace ipplay
