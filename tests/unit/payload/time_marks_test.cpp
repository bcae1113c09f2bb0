// SPDX-License-Identifier: MIT
#include "payload/time_marks.h"

#include <gtest/gtest.h>

namespace ipplayout {
namespace {

using namespace std::chrono_literals;

constexpr TimeMarks::Mark kMarks[] = {{0, 0ns}, {100, 100ns}, {200, 1000ns}, {300, 1000ns}};

// The same whether all marks are there before the first question or each comes just in time.
TEST(TimeMarks, IsLinearBetweenMarksAndGoesOnBehindTheLast) {
  constexpr struct {
    std::uint64_t offset;
    TimeMarks::Time time;
  } kCases[] = {{0, 0ns},      {50, 50ns},    {100, 100ns}, {150, 550ns},
                {200, 1000ns}, {250, 1000ns}, {400, 1000ns}};
  TimeMarks all;
  TimeMarks late;
  for (const TimeMarks::Mark& mark : kMarks) {
    ASSERT_EQ(all.Add(mark), TimeMarks::Added::kDone);
  }
  std::size_t added = 0;
  for (const auto& row : kCases) {
    while (added < std::size(kMarks) && (added < 2 || kMarks[added - 1].offset < row.offset)) {
      ASSERT_EQ(late.Add(kMarks[added++]), TimeMarks::Added::kDone);
    }
    EXPECT_EQ(all.At(row.offset), row.time) << row.offset;
    EXPECT_EQ(late.At(row.offset), row.time) << row.offset;
  }
}

TEST(TimeMarks, JumpsOverSegmentsWithoutADatagram) {
  TimeMarks marks;
  for (const TimeMarks::Mark& mark : kMarks) {
    marks.Add(mark);
  }
  EXPECT_EQ(marks.At(190), 910ns);
  EXPECT_EQ(marks.At(290), 1000ns);
}

TEST(TimeMarks, OneMarkWaitsForTheNextOrForTheEnd) {
  TimeMarks marks;
  marks.Add({0, 7ns});
  EXPECT_EQ(marks.At(0), 7ns);
  EXPECT_EQ(marks.At(100), std::nullopt);
  marks.Finish();
  EXPECT_EQ(marks.At(100), 7ns);
}

TEST(TimeMarks, SoManyWaitAndNoMore) {
  TimeMarks marks;
  for (std::uint64_t i = 0; i < 65'536; ++i) {
    ASSERT_EQ(marks.Add({i, 0ns}), TimeMarks::Added::kDone);
  }
  EXPECT_EQ(marks.Add({65'536, 0ns}), TimeMarks::Added::kFull);
  marks.At(2);  // lets go of those before it
  EXPECT_EQ(marks.Add({65'536, 0ns}), TimeMarks::Added::kDone);
}

TEST(TimeMarks, TheMeanRateIsThatOfAllMarksOrTheOneThatIsSet) {
  TimeMarks marks;
  EXPECT_EQ(marks.MeanRate(), std::nullopt);
  for (const TimeMarks::Mark& mark : kMarks) {
    marks.Add(mark);
  }
  EXPECT_DOUBLE_EQ(marks.MeanRate().value_or(0), 3e8);  // 300 bytes in 1,000 ns
  TimeMarks rate;
  rate.SetRate(8);
  EXPECT_DOUBLE_EQ(rate.MeanRate().value_or(0), 1.25e8);
}

}  // namespace
}  // namespace ipplayout
