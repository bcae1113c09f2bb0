#include "payload/data_buffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "protocol/pdu.h"
#include "tests/support/blocked_call.h"
#include "tests/support/bytes.h"

namespace ipplayout {
namespace {

// A stream without repetition at the sizes of rings: any part of it can be compared at once.
class Pattern {
 public:
  static constexpr std::size_t kPeriod = 65521;

  Pattern() : bytes_(2 * kPeriod) {
    std::mt19937 random(1);
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
      bytes_[i] = i < kPeriod ? static_cast<std::uint8_t>(random()) : bytes_[i - kPeriod];
    }
  }
  // At most kPeriod bytes from this position of the stream on.
  const std::uint8_t* At(std::uint64_t position) const { return &bytes_[position % kPeriod]; }

 private:
  Bytes bytes_;
};

const Pattern pattern;

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
  EXPECT_EQ(buffer.IsTerminated(), 0U);
  EXPECT_EQ(Read(buffer, 0, 40), "end");  // no room: at once
  auto next = OnAnotherThread([&] { return Read(buffer, 1); });
  Write(buffer, "early");
  EXPECT_TRUE(Blocks(next));  // the threshold counts anew
  buffer.Terminate();
  EXPECT_EQ(next.get(), "e");
  buffer.Reset();
  EXPECT_TRUE(buffer.IsEmpty());
}

TEST(DataBufferTest, WritesAndReadsCrossTheEndOfTheRing) {
  CIPDataBuffer buffer(10);
  EXPECT_TRUE(Write(buffer, "0123456789"));
  EXPECT_EQ(Read(buffer, 7), "0123456");
  EXPECT_TRUE(Write(buffer, "abcdefg"));
  EXPECT_EQ(Read(buffer, 2), "78");
  EXPECT_EQ(Read(buffer, 8), "9abcdefg");
  EXPECT_TRUE(buffer.IsEmpty());
  EXPECT_TRUE(Write(buffer, ""));
  EXPECT_TRUE(Write(buffer, "9876543210"));  // the whole ring, from its middle
  EXPECT_EQ(Read(buffer, 10), "9876543210");
  EXPECT_FALSE(Write(buffer, "01234567890"));  // could never fit
  EXPECT_TRUE(buffer.IsEmpty());
}

TEST(DataBufferTest, AWriterWaitsUntilItsWholeWriteFits) {
  CIPDataBuffer buffer(10);
  Write(buffer, "0123456789");
  auto writer = OnAnotherThread([&] { return Write(buffer, "abcd"); });
  EXPECT_EQ(Read(buffer, 3), "012");
  EXPECT_TRUE(Blocks(writer));
  buffer.Terminate();
  EXPECT_EQ(Read(buffer, 1), "3");
  EXPECT_TRUE(writer.get());
  EXPECT_EQ(Read(buffer, 20), "456789abcd");
}

TEST(DataBufferTest, TheEndOfARunReleasesWriters) {
  CIPDataBuffer buffer(10);
  for (const bool by_reset : {false, true}) {
    buffer.BeginRun();
    Write(buffer, "0123456789");
    auto first = OnAnotherThread([&] { return Write(buffer, "abcd"); });
    auto second = OnAnotherThread([&] { return Write(buffer, "e"); });
    EXPECT_TRUE(Blocks(first));
    EXPECT_TRUE(Blocks(second));
    by_reset ? static_cast<void>(buffer.Reset()) : buffer.EndRun();
    EXPECT_FALSE(first.get());
    EXPECT_FALSE(second.get());
    if (!by_reset) {
      EXPECT_FALSE(Write(buffer, "f"));  // full, and nobody reads
      EXPECT_EQ(Read(buffer, 10), "0123456789");
      EXPECT_TRUE(Write(buffer, "kept"));  // for the next run
      EXPECT_EQ(Read(buffer, 4), "kept");
    }
  }
}

TEST(DataBufferTest, EachBlockedWriterIsWokenForItsOwnNeed) {
  for (const bool big_first : {true, false}) {
    CIPDataBuffer buffer(10);
    Write(buffer, "0123456789");
    buffer.Terminate();
    const auto start_big = [&] {
      return OnAnotherThread([&] { return Write(buffer, "ABCDEFGH"); });
    };
    auto big = big_first ? start_big() : std::future<bool>();
    EXPECT_TRUE(!big_first || Blocks(big));
    auto small = OnAnotherThread([&] { return Write(buffer, "s"); });
    EXPECT_TRUE(Blocks(small));
    if (!big_first) {
      big = start_big();
      EXPECT_TRUE(Blocks(big));
    }
    EXPECT_EQ(Read(buffer, 1), "0");
    EXPECT_TRUE(Returns(small));
    EXPECT_EQ(Read(buffer, 10), "123456789s");
    EXPECT_TRUE(Returns(big));
    buffer.EndRun();  // so that a failure does not hang
  }
}

// Each writer's records must arrive whole and in order, whichever of them the reader makes room
// for.
TEST(DataBufferTest, WritersOfDifferentSizesShareTheRing) {
  constexpr std::uint32_t kRecords = 3000;
  constexpr std::uint32_t kSizes[] = {5, 60, 97};
  CIPDataBuffer buffer(128);
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
    const auto size = static_cast<std::uint32_t>(head[0]);
    ASSERT_EQ(Read(buffer, size - 1), std::string(size - 1, static_cast<char>(next[size]++)));
  }
  for (std::thread& writer : writers) {
    writer.join();
  }
}

TEST(DataBufferTest, AHundredMegabytesArriveByteForByte) {
  constexpr std::uint64_t kTotal = 100000000;
  CIPDataBuffer buffer(4099);
  buffer.SetStartThreshold(1300);
  std::thread writer([&buffer] {
    std::mt19937 random(2);
    for (std::uint64_t done = 0; done < kTotal;) {
      const auto size = std::min<std::uint64_t>(1 + random() % 2700, kTotal - done);
      ASSERT_TRUE(buffer.Write(pattern.At(done), static_cast<std::uint32_t>(size)));
      done += size;
    }
    buffer.Terminate();
  });
  PDU pdu(54 + 1317);
  std::uint64_t done = 0;
  while (buffer.ReadPayload(pdu, 54, 0)) {
    const std::uint32_t size = pdu.Length() - 54;
    ASSERT_EQ(std::memcmp(pdu.Data() + 54, pattern.At(done), size), 0) << done;
    done += size;
  }
  writer.join();
  EXPECT_EQ(done, kTotal);
}

TEST(DataBufferTest, WritersAreReleasedAtWhateverMomentARunEnds) {
  CIPDataBuffer buffer(1000);
  std::mt19937 random(3);
  for (int run = 0; run < 2000; ++run) {
    buffer.BeginRun();
    auto writer = OnAnotherThread([&buffer] {
      std::uint64_t done = 0;
      while (buffer.Write(pattern.At(done), 300)) {
        done += 300;
      }
      return done;
    });
    std::uint64_t taken = 0;
    for (std::uint32_t reads = random() % 8; reads > 0; --reads, taken += 250) {
      PDU pdu(250);
      ASSERT_TRUE(buffer.ReadPayload(pdu, 0, 0));
      ASSERT_EQ(std::memcmp(pdu.Data(), pattern.At(taken), 250), 0);
    }
    buffer.EndRun();
    EXPECT_GE(writer.get(), taken);
    buffer.Reset();
  }
}

TEST(DataBufferTest, WithoutStorageItRefuses) {
  CIPDataBuffer buffer(0);
  EXPECT_EQ(buffer.GetCapacity(), 0U);
  EXPECT_FALSE(buffer.SetStartThreshold(0));
  EXPECT_FALSE(Write(buffer, "x"));
}

}  // namespace
}  // namespace ipplayout
