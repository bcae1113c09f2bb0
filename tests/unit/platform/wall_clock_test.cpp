// SPDX-License-Identifier: MIT
#include "platform/wall_clock.h"

#include <gtest/gtest.h>

namespace ipplayout::platform {
namespace {

using std::chrono::nanoseconds;

TEST(WallClock, ComparisonsNarrowTheDifferenceAndShowASetting) {
  const struct {
    const char* what;
    std::int64_t before, wall, after;
    bool set;
    std::int64_t monotonic_of_10000;
  } steps[] = {
      {"between 890 and 910 apart", 90, 1000, 110, false, 9100},
      {"between 900 and 940: 900 to 910", 160, 1100, 200, false, 9095},
      {"wide, and tells nothing", 0, 2000, 10000, false, 9095},
      {"between 910 and 930: 910", 270, 1200, 290, false, 9090},
      {"set forward by 30: 930 to 950", 350, 1300, 370, true, 9060},
      {"the same again", 450, 1400, 470, false, 9060},
      {"set back", 500, 500, 510, true, 10005},
  };
  WallClock clock;
  for (const auto& s : steps) {
    EXPECT_EQ(clock.Observe(nanoseconds(s.before), nanoseconds(s.wall), nanoseconds(s.after)),
              s.set)
        << s.what;
    EXPECT_EQ(clock.ToMonotonic(nanoseconds(10000)).count(), s.monotonic_of_10000) << s.what;
  }
}

}  // namespace
}  // namespace ipplayout::platform
