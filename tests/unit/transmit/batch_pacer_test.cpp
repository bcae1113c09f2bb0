// SPDX-License-Identifier: MIT
#include "transmit/batch_pacer.h"

#include <gtest/gtest.h>

#include <vector>

namespace ipplayout {
namespace {

constexpr double kMs = 0.001;

struct Step {
  double elapsed;  // milliseconds, as all of these
  double jitter_sum;
  double wait;
  double advance;
  double correction;  // ignored where none is given
};

TEST(BatchPacerTest, FollowsItsRules) {
  const struct {
    const char* what;
    std::uint32_t frames;
    bool burst;
    bool corrects;
    std::vector<Step> steps;
  } cases[] = {
      // On time twice, then 3 late, which the next two make up for.
      {"single frames",
       1,
       false,
       false,
       {{0.4, 0, 0.6, 1, 0},
        {1.1, 0, 0.5, 1, 0},
        {3.5, 0, -2, 3, 0},
        {0.1, 0, -1.1, 2.1, 0},
        {0.1, 0, -0.2, 1.2, 0},
        {0.1, 0, 0.7, 1, 0}}},
      // 10 gaps to a batch. Late twice, then on time with a gap that is shorter by 0.1.
      {"spaced batches",
       11,
       false,
       true,
       {{10.2, 0, 0.8, 1, 0},
        {13.8, 0, 0, 1, 0.2},
        {10, 0, 0, 0.8, 0.1},
        {9, 0, 0.9, 0.9, -0.01},
        {9, 0, 3.01, 1.01, 0.001}}},
      {"bursts",
       5,
       true,
       false,
       {{0.5, 0.1, 4.5, 4.9, 0}, {5.5, 0, 4, 5, 0}, {11, 0, -2, 5, 0}, {0.5, 0, 2.5, 5, 0}}},
  };
  for (const auto& [what, frames, burst, corrects, steps] : cases) {
    BatchPacer pacer(Seconds(kMs), frames, burst);
    for (const Step& step : steps) {
      const BatchPacer::Pace pace =
          pacer.Next(Seconds(step.elapsed * kMs), Seconds(step.jitter_sum * kMs));
      EXPECT_NEAR(pace.wait.count(), step.wait * kMs, 1e-12) << what;
      EXPECT_NEAR(pace.queue_start_advance.count(), step.advance * kMs, 1e-12) << what;
      ASSERT_EQ(pace.gap_correction.has_value(), corrects) << what;
      EXPECT_NEAR(pace.gap_correction.value_or(Seconds(0)).count(), step.correction * kMs, 1e-12)
          << what;
    }
  }
}

}  // namespace
}  // namespace ipplayout
