// SPDX-License-Identifier: MIT
#include "host/base/units.h"

#include <gtest/gtest.h>

namespace ipplay {
namespace {

using namespace std::chrono_literals;

TEST(Units, BitRates) {
  EXPECT_EQ(ParseBitRate("9.75M"), 9'750'000.0);
  EXPECT_EQ(ParseBitRate("38810k"), 38'810'000.0);
  EXPECT_EQ(ParseBitRate("38810K"), 38'810'000.0);
  EXPECT_EQ(ParseBitRate("1G"), 1e9);
  EXPECT_EQ(ParseBitRate("10000000"), 1e7);
  EXPECT_EQ(ParseBitRate(".5M"), 5e5);
  // "1m" would be a thousandth of a bit; "1e6" and "inf" are numbers to a C library only.
  for (const char* refused : {"", "M", "0", "-1M", "+1M", "1m", "1MM", "1M ", " 1M", "1e6", "inf",
                              "nan", "0x10", "1,5M", "1M5"}) {
    EXPECT_FALSE(ParseBitRate(refused)) << refused;
  }
}

TEST(Units, Durations) {
  EXPECT_EQ(ParseDuration("10s"), 10s);
  EXPECT_EQ(ParseDuration("250ms"), 250ms);
  EXPECT_EQ(ParseDuration("50us"), 50us);
  EXPECT_EQ(ParseDuration("7ns"), 7ns);
  EXPECT_EQ(ParseDuration("1h30m"), 90min);
  EXPECT_EQ(ParseDuration("2min3.5s"), 123'500ms);
  EXPECT_EQ(ParseDuration("1.5"), 1500ms);
  EXPECT_EQ(ParseDuration("0"), 0s);
  for (const char* refused : {"", "s", "-1s", "1h30", "1 s", "1d", "1s1", "99999999h", "1e3s"}) {
    EXPECT_FALSE(ParseDuration(refused)) << refused;
  }
}

TEST(Units, PartsPerMillion) {
  EXPECT_EQ(ParsePpm("20ppm"), 20.0);
  EXPECT_EQ(ParsePpm("-4.6"), -4.6);
  EXPECT_EQ(ParsePpm("+100ppm"), 100.0);
  for (const char* refused : {"", "-", "ppm", "--1", "+-1", "20 ppm", "20ppb", "1%"}) {
    EXPECT_FALSE(ParsePpm(refused)) << refused;
  }
}

TEST(Units, Percent) {
  EXPECT_EQ(ParsePercent("20%"), 20.0);
  EXPECT_EQ(ParsePercent("0.5%"), 0.5);
  for (const char* refused : {"", "20", "%", "-1%", "20%%", "20 %"}) {
    EXPECT_FALSE(ParsePercent(refused)) << refused;
  }
}

TEST(Units, FormatsWithTheUnitThatReadsBest) {
  EXPECT_EQ(FormatBitRate(9'750'000), "9.75 Mbit/s");
  EXPECT_EQ(FormatBitRate(999'999'999), "1 Gbit/s");
  EXPECT_EQ(FormatBitRate(12), "12 bit/s");
  EXPECT_EQ(FormatBytes(0), "0 bytes");
  EXPECT_EQ(FormatBytes(1'500'000), "1.5 MB");
  EXPECT_EQ(FormatCount(0), "0");
  EXPECT_EQ(FormatCount(1'234'567), "1,234,567");
  EXPECT_EQ(FormatDuration(850ns), "850 ns");
  EXPECT_EQ(FormatDuration(12'500ns), "12.5 us");
  EXPECT_EQ(FormatDuration(250ms), "250 ms");
  EXPECT_EQ(FormatDuration(999'960us), "1 s");
  EXPECT_EQ(FormatDuration(9'830ms), "9.83 s");
  EXPECT_EQ(FormatDuration(59'996ms), "1 min 00 s");
  EXPECT_EQ(FormatDuration(185s), "3 min 05 s");
  EXPECT_EQ(FormatDuration(1h + 2min + 3s), "1 h 02 min 03 s");
}

}  // namespace
}  // namespace ipplay
