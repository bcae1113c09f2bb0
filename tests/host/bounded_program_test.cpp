// SPDX-License-Identifier: MIT
#include "host/base/bounded_program.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace ipplay {
namespace {

ProgramBounds Within(std::chrono::seconds time) {
  return {time, std::uint64_t{1} << 30, std::uint64_t{1} << 20};
}

TEST(BoundedProgram, HasItsBoundsAndNoEnvironment) {
  // Seconds, KiB, blocks of 512 bytes, descriptors, blocks of a core; and what it runs behind.
  constexpr const char* kScript =
      "ulimit -t; ulimit -v; ulimit -f; ulimit -n; ulimit -c; echo ${PATH_OF_TESTS-none}; "
      "read -r stat </proc/self/stat; set -- $stat; echo ${19}";
  ::setenv("PATH_OF_TESTS", "/", 1);
  const auto outcome = RunBounded({.words = {"sh", "-c", kScript}, .path = "/bin/sh"},
                                  Within(std::chrono::seconds(60)));
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->status, 0);
  EXPECT_EQ(outcome->output, "60\n1048576\n2048\n64\n0\nnone\n10\n");
}

TEST(BoundedProgram, AFailureIsNoLackOfTime) {
  const auto failed =
      RunBounded({.words = {"false"}, .path = "/bin/false"}, Within(std::chrono::seconds(60)));
  ASSERT_TRUE(failed);
  EXPECT_NE(failed->status, 0);
  EXPECT_FALSE(RunBounded({.words = {"sleep", "600"}, .path = "/bin/sleep"},
                          Within(std::chrono::seconds(0))));
}

}  // namespace
}  // namespace ipplay
