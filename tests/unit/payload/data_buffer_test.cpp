// SPDX-License-Identifier: MIT
#include "payload/data_buffer.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "protocol/pdu.h"
#include "tests/support/blocked_call.h"

namespace ipplayout {
namespace {

bool Write(CIPDataBuffer& buffer, const std::string& text) {
  return buffer.Write(reinterpret_cast<const std::uint8_t*>(text.data()),
                      static_cast<std::uint32_t>(text.size()));
}

// Reads `length` bytes behind `offset` bytes of header room; "end" when there is nothing to read.
std::string Read(CIPDataBuffer& buffer, std::uint32_t length, std::uint32_t offset = 0) {
  PDU pdu(offset + length);
  if (!buffer.ReadPayload(pdu, offset, 0)) {
    return "end";
  }
  return {pdu.Data() + offset, pdu.Data() + pdu.Length()};
}

TEST(DataBufferTest, ReadingBeginsAtTheThresholdAndTakesWholePayloads) {
  CIPDataBuffer buffer(5000);
  buffer.SetStartThreshold(1000);
  auto small = OnAnotherThread([&] { return Read(buffer, 16); });
  Write(buffer, std::string(999, 'a'));
  EXPECT_TRUE(Blocks(small));  // enough for it, but not for the threshold
  Write(buffer, "b");
  EXPECT_EQ(small.get(), std::string(16, 'a'));
  auto whole = OnAnotherThread([&] { return Read(buffer, 1316, 40); });
  Write(buffer, std::string(331, 'c'));
  EXPECT_TRUE(Blocks(whole));
  Write(buffer, "d");
  EXPECT_EQ(whole.get(), std::string(983, 'a') + "b" + std::string(331, 'c') + "d");
}

TEST(DataBufferTest, AThresholdBelowWhatWasWrittenAheadIsReached) {
  CIPDataBuffer buffer(5000);
  buffer.SetStartThreshold(0);  // an empty ring does not reach any
  buffer.SetStartThreshold(1000);
  Write(buffer, std::string(500, 'a'));
  auto read = OnAnotherThread([&] { return Read(buffer, 500); });
  EXPECT_TRUE(Blocks(read));
  buffer.SetStartThreshold(500);
  EXPECT_TRUE(Returns(read));
  buffer.Terminate();  // so that a failure does not hang
}

TEST(DataBufferTest, TerminationReleasesTheReaderAndShortensTheTail) {
  CIPDataBuffer buffer(5000);
  buffer.SetStartThreshold(1000);
  Write(buffer, std::string(500, 't'));
  auto tail = OnAnotherThread([&] { return Read(buffer, 1316, 40); });
  EXPECT_TRUE(Blocks(tail));
  buffer.Terminate();
  EXPECT_EQ(tail.get(), std::string(500, 't'));
  EXPECT_TRUE(buffer.HasEnded());
  EXPECT_EQ(Read(buffer, 1316, 40), "end");
  Write(buffer, "late");  // still taken
  EXPECT_EQ(Read(buffer, 1316), "late");
  buffer.Reset();
  EXPECT_EQ(Read(buffer, 0, 40), "end");  // no room: at once
  auto next = OnAnotherThread([&] { return Read(buffer, 1); });
  Write(buffer, "early");
  EXPECT_TRUE(Blocks(next));  // the threshold counts anew
  buffer.Terminate();
  EXPECT_EQ(next.get(), "e");
}

TEST(DataBufferTest, WritesAndReadsCrossTheEndOfTheRing) {
  CIPDataBuffer buffer(10);
  EXPECT_TRUE(Write(buffer, "0123456789"));
  EXPECT_EQ(Read(buffer, 7), "0123456");
  EXPECT_TRUE(Write(buffer, "abcdefg"));
  EXPECT_EQ(Read(buffer, 2), "78");
  EXPECT_EQ(Read(buffer, 8), "9abcdefg");
  EXPECT_TRUE(Write(buffer, ""));
  EXPECT_TRUE(Write(buffer, "9876543210"));  // the whole ring, from its middle
  EXPECT_EQ(Read(buffer, 10), "9876543210");
  EXPECT_FALSE(Write(buffer, "01234567890"));  // could never fit
  EXPECT_FALSE(Write(*std::make_unique<CIPDataBuffer>(0), "x"));
}

TEST(DataBufferTest, TheEndOfARunReleasesWriters) {
  CIPDataBuffer buffer(10);
  for (const bool by_reset : {false, true}) {
    bool wrote = true;
    // A writer that a busy machine starts after the reset has room and writes; the next may wait.
    for (int attempt = 0; wrote && attempt < 20; ++attempt) {
      buffer.Reset();
      buffer.BeginRun();
      Write(buffer, "0123456789");
      auto first = OnAnotherThread([&] { return Write(buffer, "abcd"); });
      auto second = OnAnotherThread([&] { return Write(buffer, "e"); });
      EXPECT_TRUE(Blocks(first) && Blocks(second));
      by_reset ? static_cast<void>(buffer.Reset()) : buffer.EndRun();
      const bool first_wrote = first.get();
      wrote = second.get() || first_wrote;
    }
    EXPECT_FALSE(wrote);
    if (!by_reset) {
      EXPECT_FALSE(Write(buffer, "f"));  // full, and nobody reads
      EXPECT_EQ(Read(buffer, 10), "0123456789");
      EXPECT_TRUE(Write(buffer, "kept"));  // for the next run
      EXPECT_EQ(Read(buffer, 4), "kept");
    }
  }
  // Empty again, for the next run: it makes the room that a writer ahead of it waits for.
  EXPECT_TRUE(Write(buffer, "0123456789"));
  auto ahead = OnAnotherThread([&] { return Write(buffer, "a"); });
  EXPECT_TRUE(Blocks(ahead));
  buffer.BeginRun();
  EXPECT_EQ(Read(buffer, 10), "0123456789");
  EXPECT_TRUE(ahead.get());
}

TEST(DataBufferTest, EachBlockedWriterIsWokenForItsOwnNeed) {
  for (const bool big_first : {true, false}) {
    CIPDataBuffer buffer(10);
    Write(buffer, "0123456789");
    buffer.Terminate();
    const std::string texts[] = {"s", "ABCDEFGH"};
    auto first = OnAnotherThread([&] { return Write(buffer, texts[big_first]); });
    EXPECT_TRUE(Blocks(first));
    auto second = OnAnotherThread([&] { return Write(buffer, texts[!big_first]); });
    EXPECT_TRUE(Blocks(second));
    EXPECT_EQ(Read(buffer, 1), "0");
    EXPECT_TRUE(Returns(big_first ? second : first));
    EXPECT_EQ(Read(buffer, 10), "123456789s");
    EXPECT_TRUE(Returns(big_first ? first : second));
    buffer.EndRun();  // so that a failure does not hang
  }
}

// The writer waits for the reader and the reader for the writer: a lost wake-up stops both.
TEST(DataBufferTest, EveryWriteIsSeenAndEverySpaceIsUsed) {
  CIPDataBuffer buffer(1);
  auto written = OnAnotherThread([&] {
    std::uint64_t bytes = 0;
    for (Rounds rounds(100'000); rounds.GoOn() && Write(buffer, "x");) {
      ++bytes;
    }
    buffer.Terminate();
    return bytes;
  });
  auto read = OnAnotherThread([&] {
    std::uint64_t bytes = 0;
    while (Read(buffer, 1) == "x") {
      ++bytes;
    }
    return bytes;
  });
  const bool is_done = Returns(read) && Returns(written);
  buffer.EndRun();  // so that a failure does not hang
  ASSERT_TRUE(is_done);
  EXPECT_EQ(read.get(), written.get());
}

// Each writer's records must arrive whole and in order, whichever of them the reader makes room
// for. Most of them cross the end of the ring.
TEST(DataBufferTest, WritersOfDifferentSizesShareTheRing) {
  constexpr std::uint32_t kRecords = 5000;
  constexpr std::uint32_t kSizes[] = {5, 60, 97};
  CIPDataBuffer buffer(127);
  std::vector<std::thread> writers;
  for (const std::uint32_t size : kSizes) {
    writers.emplace_back([&buffer, size] {
      for (std::uint32_t number = 0; number < kRecords; ++number) {
        std::string record(size, static_cast<char>(number));
        record[0] = static_cast<char>(size);
        ASSERT_TRUE(Write(buffer, record));
      }
    });
  }
  std::vector<std::uint32_t> next(128);
  for (std::uint32_t records = 0; records < 3 * kRecords; ++records) {
    const std::string head = Read(buffer, 1);
    const std::uint32_t size = static_cast<unsigned char>(head[0]);
    ASSERT_EQ(Read(buffer, size - 1), std::string(size - 1, static_cast<char>(next[size]++)));
  }
  for (std::thread& writer : writers) {
    writer.join();
  }
}

}  // namespace
}  // namespace ipplayout
