// SPDX-License-Identifier: MIT
#include "transmit/trace_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>

namespace ipplayout {
namespace {

constexpr char kLine[] = R"([0-1][0-9]/[0-3][0-9]/[0-9]{2} [0-2][0-9]:[0-5][0-9]:[0-6][0-9] n = 7
)";

TEST(TraceLogTest, WritesWhereTheSwitchesSay) {
  for (const bool to_file : {false, true}) {
    for (const bool silent : {false, true}) {
      std::FILE* file = std::tmpfile();
      OsaTraceFile = to_file ? file : nullptr;
      OsaTraceSilent = silent;
      testing::internal::CaptureStdout();
      const int count = OsaTrace("n = %d", 7);
      const std::string console = testing::internal::GetCapturedStdout();
      OsaTraceFile = nullptr;
      OsaTraceSilent = false;
      std::array<char, 100> text{};
      std::rewind(file);
      EXPECT_LT(std::fread(text.data(), 1, text.size(), file), text.size());
      std::fclose(file);
      EXPECT_EQ(count, to_file || !silent ? 5 : 0);
      EXPECT_THAT(console, testing::MatchesRegex(silent ? "" : kLine));
      EXPECT_THAT(text.data(), testing::MatchesRegex(to_file ? kLine : ""));
    }
  }
}

}  // namespace
}  // namespace ipplayout
