#include "transmit/batch_pacer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
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
    BatchPacer pacer(kMs, frames, burst);
    for (const Step& step : steps) {
      const BatchPacer::Pace pace = pacer.Next(step.elapsed * kMs, step.jitter_sum * kMs);
      EXPECT_NEAR(pace.wait, step.wait * kMs, 1e-12) << what;
      EXPECT_NEAR(pace.queue_start_advance, step.advance * kMs, 1e-12) << what;
      ASSERT_EQ(pace.gap_correction.has_value(), corrects) << what;
      EXPECT_NEAR(pace.gap_correction.value_or(0), step.correction * kMs, 1e-12) << what;
    }
  }
}

// Pump, transmitter and driver on a clock of their own: a batch is taken up some time after the one
// before it has left, and the gaps of a batch are those that were known when the one before it was
// handed over.
class Line {
 public:
  Line(double packet_time, std::uint32_t frames, bool burst)
      : packet_time_(packet_time),
        frames_(frames),
        gaps_(burst ? 0 : frames - 1),
        pacer_(packet_time, frames, burst),
        gap_(packet_time),
        end_(gaps_ * packet_time) {}

  // The next batch; returns how far behind the grid it leaves.
  double Next(double delay) {
    const double gap = gap_;
    gap_ = std::max(packet_time_ - correction_, 0.0);
    const double now = end_ + delay;
    const BatchPacer::Pace pace = pacer_.Next(now - mark_, 0);
    mark_ = now;
    correction_ = pace.gap_correction.value_or(0);
    const double start = now + std::max(pace.wait, 0.0);
    end_ = start + gaps_ * gap;
    grid_ = ++batch_ * frames_ * packet_time_;
    return start - grid_;
  }
  // How late the batch was taken up.
  double TakenUp() const { return mark_ - grid_; }

 private:
  double packet_time_;
  double frames_;
  double gaps_;
  BatchPacer pacer_;
  double gap_;
  double end_;
  double mark_ = 0;
  double correction_ = 0;
  double grid_ = 0;
  double batch_ = 0;
};

TEST(BatchPacerTest, AMillionBatchesKeepTheGrid) {
  constexpr double kGap = 1e-4;
  constexpr double kTolerance = 1e-7;  // of the sums of floating-point numbers over a run
  const struct {
    std::uint32_t frames;
    bool burst;
  } cases[] = {{1, false}, {5, true}, {10, false}};
  for (const auto& [frames, burst] : cases) {
    Line line(kGap, frames, burst);
    std::mt19937 random(4);
    std::uniform_real_distribution<double> delay(0, kGap / 2);
    for (int batch = 1; batch <= 1000000; ++batch) {
      const bool hitch = batch % 1000 == 0;
      const double deviation = line.Next(hitch ? 20 * kGap : delay(random));
      if (frames == 1 || burst) {
        // Exactly at its time, or at once when it is taken up late.
        ASSERT_NEAR(deviation, std::max(line.TakenUp(), 0.0), kTolerance) << batch;
      } else {
        // Catches up by and by without ever running more than a gap ahead.
        ASSERT_GT(deviation, -1.1 * kGap) << batch;
        ASSERT_LT(deviation, 20 * kGap) << batch;
      }
      if (batch % 1000 > 100) {
        ASSERT_NEAR(deviation, 0, kTolerance) << frames << ", " << batch;
      }
    }
  }
}

}  // namespace
}  // namespace ipplayout
