// SPDX-License-Identifier: MIT
#include "host/measure/figures/reorder_window.h"

#include <gtest/gtest.h>

#include <string>

namespace ipplay::measure {
namespace {

// What comes out, as "1 2 |4": the last byte of each payload, a bar where something is missing.
std::string Order(const std::vector<std::uint16_t>& numbers, std::int64_t step_ns = 1'000'000,
                  const ReorderLimits& limits = {}) {
  std::string order;
  const auto deliver = [&](const ReorderWindow::Payload& payload, bool after_gap) {
    order += (order.empty() ? "" : " ") + std::string(after_gap ? "|" : "") +
             std::to_string(payload.bytes[0]);
  };
  ReorderWindow window(deliver, limits);
  RtpSequence sequence;
  std::int64_t now_ns = 0;
  for (const std::uint16_t number : numbers) {
    const std::uint8_t byte[] = {static_cast<std::uint8_t>(number)};
    window.Add(number, sequence.Add(number).event, {byte, now_ns += step_ns});
  }
  window.Flush();
  return order;
}

TEST(ReorderWindow, PutsInPlaceWhatComesInTimeAndWaitsForNothingElse) {
  EXPECT_EQ(Order({1, 2, 3, 4}), "1 2 3 4");
  EXPECT_EQ(Order({1, 3, 2, 4}), "1 2 3 4");
  EXPECT_EQ(Order({1, 4, 3, 3, 2, 2, 5}), "1 2 3 4 5");         // repeats go no further
  EXPECT_EQ(Order({1, 3, 5, 4, 6}), "1 |3 4 5 6");              // 2 never comes
  EXPECT_EQ(Order({65534, 0, 65535, 1}), "254 255 0 1");        // over the wrap
  EXPECT_EQ(Order({1, 3, 4, 2, 5}, 49'000'000), "1 2 3 4 5");   // 2 comes after 98 ms
  EXPECT_EQ(Order({1, 3, 4, 2, 5}, 200'000'000), "1 |3 4 5");   // 2 comes after 400 ms
  EXPECT_EQ(Order({1, 100, 101, 2}), "1 |100 101");             // too long a loss to wait for
  EXPECT_EQ(Order({1, 2, 9000, 9001, 9002}), "1 2 |40 41 42");  // a restart: 9000 mod 256 = 40
  std::vector<std::uint16_t> numbers{1};
  std::string expected = "1";
  for (std::uint16_t number = 3; number <= 50; ++number) {
    numbers.push_back(number);
    expected += (number == 3 ? " |" : " ") + std::to_string(number);
  }
  numbers.push_back(2);  // 48 behind
  EXPECT_EQ(Order(numbers), expected);
}

TEST(ReorderWindow, WaitsAsLongAsItIsTo) {
  constexpr std::int64_t kMs = 1'000'000;
  constexpr std::int64_t kSecond = 1000 * kMs;
  EXPECT_EQ(Order({1, 3, 2, 4}, kMs, {1, kSecond}), "1 |3 4");
  EXPECT_EQ(Order({1, 3, 4, 2, 5}, 200 * kMs, {32, kSecond}), "1 2 3 4 5");
  // 48 behind, over the wrap, in windows whose lengths do not divide 65536.
  std::vector<std::uint16_t> numbers{65514};
  std::string in_place = "234";
  std::string as_lost = "234";
  for (std::uint16_t number = 65516; number != 28; ++number) {
    numbers.push_back(number);
    const std::string text = std::to_string(number % 256);
    in_place += (number == 65516 ? " 235 " : " ") + text;
    as_lost += (number == 65516 ? " |" : " ") + text;
  }
  numbers.push_back(65515);
  EXPECT_EQ(Order(numbers, kMs, {49, kSecond}), in_place);
  EXPECT_EQ(Order(numbers, kMs, {48, kSecond}), as_lost);
}

}  // namespace
}  // namespace ipplay::measure
