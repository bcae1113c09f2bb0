// SPDX-License-Identifier: MIT
#include "platform/snapshot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

namespace ipplayout::platform {
namespace {

struct Record {
  std::array<std::uint64_t, 13> values;
  std::uint32_t last;
};

TEST(Snapshot, ReadersSeeWholeRecordsInOrder) {
  constexpr std::uint32_t kRecords = 300000;
  Snapshot<Record> snapshot;
  EXPECT_EQ(snapshot.Read().last, 0U);
  std::thread publisher([&] {
    for (std::uint32_t number = 1; number <= kRecords; ++number) {
      Record record{{}, number};
      record.values.fill(number);
      snapshot.Publish(record);
    }
  });
  std::uint32_t previous = 0;
  bool whole = true;
  while (previous < kRecords && whole) {
    const Record record = snapshot.Read();
    whole = record.last >= previous && std::ranges::all_of(record.values, [&](std::uint64_t value) {
              return value == record.last;
            });
    previous = record.last;
  }
  publisher.join();
  EXPECT_TRUE(whole) << "after record " << previous;
}

}  // namespace
}  // namespace ipplayout::platform
