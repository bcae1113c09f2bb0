// SPDX-License-Identifier: MIT
#include "host/measure/figures/availability.h"

#include <gtest/gtest.h>

#include <string_view>

namespace ipplay::measure {
namespace {

// A letter is a second: good, Error, Loss below 30 %, Severe loss, Nothing came.
TEST(Availability, FollowsG826) {
  const struct {
    std::string_view seconds;
    std::uint64_t errored, severely, unavailable;
  } cases[] = {
      {"ggg", 0, 0, 0},
      {"gELg", 2, 0, 0},
      {"gSgN", 2, 2, 0},
      {"SSSSSSSSSgSSSSSSSSS", 18, 18, 0},                // nine in a row twice
      {"gSSSSSSSSSS", 0, 0, 10},                         // ten in a row
      {"NNNNNNNNNNNNNNNgggggggggg", 0, 0, 15},           // ten good ones end it
      {"NNNNNNNNNNNNNNNgggggSggLggggggggEg", 2, 0, 21},  // a severe one among them begins again
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.seconds);
    Availability availability;
    for (const char second : c.seconds) {
      const std::uint64_t lost = second == 'L' ? 29 : second == 'S' ? 30 : 0;
      availability.Add({second == 'N' ? 0 : 100 - lost, lost, second == 'E'});
    }
    EXPECT_EQ(availability.Seconds(), c.seconds.size());
    EXPECT_EQ(availability.ErroredSeconds(), c.errored);
    EXPECT_EQ(availability.SeverelyErroredSeconds(), c.severely);
    EXPECT_EQ(availability.UnavailableSeconds(), c.unavailable);
  }
}

TEST(Availability, TakesAlikeSecondsTogether) {
  for (const std::uint64_t count : {1U, 9U, 10U, 11U, 100'000U}) {
    for (const Availability::Second& second :
         {Availability::Second{100, 0, false}, Availability::Second{100, 1, false},
          Availability::Second{0, 0, false}}) {
      Availability together;
      Availability one_by_one;
      for (Availability* availability : {&together, &one_by_one}) {
        availability->Add({0, 0, false}, 15);
        availability->Add({100, 0, false}, 3);
      }
      together.Add(second, count);
      for (std::uint64_t i = 0; i < count; ++i) {
        one_by_one.Add(second);
      }
      EXPECT_EQ(together.Seconds(), count + 18);
      EXPECT_EQ(together.ErroredSeconds(), one_by_one.ErroredSeconds());
      EXPECT_EQ(together.SeverelyErroredSeconds(), one_by_one.SeverelyErroredSeconds());
      EXPECT_EQ(together.UnavailableSeconds(), one_by_one.UnavailableSeconds());
    }
  }
}

}  // namespace
}  // namespace ipplay::measure
