// SPDX-License-Identifier: MIT
#include "host/library/short_sends.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace ipplay {
namespace {

TEST(ShortSends, FramesThatWereNotSent) {
  const struct {
    std::vector<std::uint64_t> bytes_sent;
    std::uint64_t batch;
    std::optional<std::uint64_t> frames;
    std::uint64_t unsent;
  } cases[] = {
      {{}, 10, 25, 0},
      {{0}, 200, 150, 150},                   // all in the rest
      {{3 * 1016}, 10, 25, 2},                // part of the rest
      {{0, 0, 0}, 10, 21, 21},                // two batches and the rest
      {{4 * 1016, 0}, 10, 20, 16},            // no rest
      {{7 * 1016}, 10, 25, 3},                // more than the rest has: a full batch
      {{0}, 1, 5, 1},                         // frames on their own
      {{0, 2 * 1016}, 10, std::nullopt, 11},  // at least
  };
  for (const auto& [bytes_sent, batch, frames, unsent] : cases) {
    EXPECT_EQ(UnsentFrames(bytes_sent, {.batch = batch, .frame_bytes = 1000, .frames = frames}),
              unsent);
  }
}

}  // namespace
}  // namespace ipplay
