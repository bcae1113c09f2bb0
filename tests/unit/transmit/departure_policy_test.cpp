// SPDX-License-Identifier: MIT
#include "transmit/departure_policy.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace ipplayout {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// Frames 10 ms apart; the second one is handled 25 ms behind its place, the others at once, but
// for what a wake-up is late by.
TEST(DeparturePolicy, HandlesAStallByItsRule) {
  const struct {
    const char* name;
    LateRule rule;
    std::vector<std::optional<double>> departures;  // ms; nothing: left out
    double shift;                                   // ms
  } kRows[] = {
      // Behind the late one gaps of 8 ms, until they meet the places again.
      {"bounded",
       {WhenLate::kBounded, 1.25, milliseconds(1)},
       {0, 35, 43, 51, 59, 67, 75, 83, 91, 99, 107, 115, 123, 131, 140},
       0},
      {"bounded by twice",
       {WhenLate::kBounded, 2, milliseconds(1)},
       {0, 35, 40, 45, 50, 55, 60, 70, 80, 90, 100, 110, 120, 130, 140},
       0},
      // All whose time has passed at once.
      {"catch up",
       {WhenLate::kCatchUp, 1.25, milliseconds(1)},
       {0, 35, 35, 35, 40, 50, 60, 70, 80, 90, 100, 110, 120, 130, 140},
       0},
      {"shift",
       {WhenLate::kShift, 1.25, milliseconds(1)},
       {0, 35, 45, 55, 65, 75, 85, 95, 105, 115, 125, 135, 145, 155, 165},
       25},
      {"drop",
       {WhenLate::kDrop, 1.25, milliseconds(1)},
       {0, {}, {}, {}, 40, 50, 60, 70, 80, 90, 100, 110, 120, 130, 140},
       0},
      {"drop, tolerant",
       {WhenLate::kDrop, 1.25, milliseconds(20)},
       {0, {}, 35, 35, 40, 50, 60, 70, 80, 90, 100, 110, 120, 130, 140},
       0},
      {"drop, as late as is tolerated",
       {WhenLate::kDrop, 1.25, milliseconds(25)},
       {0, 35, 35, 35, 40, 50, 60, 70, 80, 90, 100, 110, 120, 130, 140},
       0},
      {"shift, tolerant",
       {WhenLate::kShift, 1.25, milliseconds(30)},
       {0, 35, 35, 35, 40, 50, 60, 70, 80, 90, 100, 110, 120, 130, 140},
       0},
  };
  for (const auto& row : kRows) {
    DeparturePolicy policy(row.rule);
    nanoseconds now{0};
    for (std::size_t i = 0; i < row.departures.size(); ++i) {
      const nanoseconds due = milliseconds(10 * i);
      const nanoseconds planned = policy.Plan(due);
      now = std::max(now, planned);
      if (i == 1) {
        now = milliseconds(35);
      }
      const bool goes = policy.Settle(due, planned, now);
      ASSERT_EQ(goes, row.departures[i].has_value()) << row.name << ' ' << i;
      if (goes) {
        EXPECT_DOUBLE_EQ(static_cast<double>(now.count()) / 1e6, *row.departures[i])
            << row.name << ' ' << i;
      }
    }
    EXPECT_DOUBLE_EQ(static_cast<double>(policy.Shifted().count()) / 1e6, row.shift) << row.name;
  }
}

// Wake-ups that are late by less than the tolerance neither add up nor slow the catching up.
TEST(DeparturePolicy, TheLatenessOfWakeUpsDoesNotAddUp) {
  for (const WhenLate what : {WhenLate::kBounded, WhenLate::kShift}) {
    DeparturePolicy policy({what, 1.25, milliseconds(1)});
    for (int i = 0; i < 100; ++i) {
      const nanoseconds due = milliseconds(i);
      const nanoseconds planned = policy.Plan(due);
      EXPECT_EQ(planned, due);
      EXPECT_TRUE(policy.Settle(due, planned, planned + microseconds(900)));
    }
    EXPECT_EQ(policy.Shifted(), nanoseconds(0));
  }
}

TEST(DeparturePolicy, APauseMovesPlacesAndWhatIsCaughtUp) {
  DeparturePolicy policy({WhenLate::kBounded, 1.25, milliseconds(1)});
  policy.Settle(milliseconds(0), milliseconds(0), milliseconds(25));
  EXPECT_EQ(policy.Plan(milliseconds(10)), milliseconds(33));
  policy.Shift(milliseconds(100));
  EXPECT_EQ(policy.Plan(milliseconds(10)), milliseconds(133));
  EXPECT_EQ(policy.Place(milliseconds(10)), milliseconds(110));
}

// Frames of one burst share their place, also while they catch up.
TEST(DeparturePolicy, BurstsStayBurstsWhileTheyCatchUp) {
  DeparturePolicy policy({WhenLate::kBounded, 2, milliseconds(1)});
  policy.Settle(milliseconds(0), milliseconds(0), milliseconds(50));
  EXPECT_EQ(policy.Plan(milliseconds(0)), milliseconds(50));
  policy.Settle(milliseconds(0), milliseconds(50), milliseconds(50));
  EXPECT_EQ(policy.Plan(milliseconds(20)), milliseconds(60));
}

}  // namespace
}  // namespace ipplayout
