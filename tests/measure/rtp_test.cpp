// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <vector>

#include "frame_builder.h"
#include "host/measure/figures/rtp_header.h"
#include "host/measure/figures/rtp_sequence.h"

namespace ipplay::measure {
namespace {

using testing::FromHex;

TEST(RtpHeader, ReadsAllItsFields) {
  const auto bytes = FromHex("80 a1 1234 01020304 deadbeef 47");
  const auto rtp = ParseRtpHeader(bytes, bytes.size());
  ASSERT_TRUE(rtp);
  EXPECT_TRUE(rtp->version == 2 && rtp->payload_type == 33 && rtp->marker);
  EXPECT_EQ(rtp->sequence_number, 0x1234);
  EXPECT_EQ(rtp->timestamp, 0x01020304U);
  EXPECT_EQ(rtp->ssrc, 0xDEADBEEFU);
}

TEST(RtpHeader, FindsThePayloadOrRefuses) {
  const struct {
    const char* name;
    const char* bytes;
    std::optional<std::size_t> header;
    std::size_t padding;
  } cases[] = {
      {"two CSRCs", "82 21 0000 00000000 00000001 00000002 00000003 47", 20, 0},
      {"extension of one word", "90 21 0000 00000000 00000001 bede0001 00000000 47", 20, 0},
      {"padding of two", "a0 21 0000 00000000 00000001 47 0002", 12, 2},
      {"too short", "80 21 0000 00000000 000000", {}, 0},
      {"CSRCs cut", "82 21 0000 00000000 00000001 00000002", {}, 0},
      {"extension cut", "90 21 0000 00000000 00000001 bede0002 00000000", {}, 0},
      {"padding of none", "a0 21 0000 00000000 00000001 4700", {}, 0},
      {"padding beyond the payload", "a0 21 0000 00000000 00000001 4703", {}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto bytes = FromHex(c.bytes);
    const auto rtp = ParseRtpHeader(bytes, bytes.size());
    ASSERT_EQ(rtp.has_value(), c.header.has_value());
    if (!rtp) {
      continue;
    }
    EXPECT_EQ(rtp->header_length, *c.header);
    EXPECT_EQ(rtp->padding, c.padding);
  }
}

TEST(RtpSequence, CountsEveryKindOfDisorder) {
  const struct {
    const char* name;
    std::vector<std::uint16_t> numbers;
    std::uint64_t lost, periods, longest, duplicates, reordered, farthest, strays, restarts;
  } cases[] = {
      {"in order over the wrap", {65534, 65535, 0, 1}, 0, 0, 0, 0, 0, 0, 0, 0},
      {"two losses", {1, 2, 5, 6, 8}, 3, 2, 2, 0, 0, 0, 0, 0},
      {"loss over the wrap", {65534, 2}, 3, 1, 3, 0, 0, 0, 0, 0},
      {"late by two", {1, 3, 4, 2, 5}, 0, 1, 1, 0, 1, 2, 0, 0},
      {"late over the wrap", {65534, 0, 65535, 1}, 0, 1, 1, 0, 1, 1, 0, 0},
      {"twice at once and later", {1, 1, 2, 3, 2}, 0, 0, 0, 2, 0, 0, 0, 0},
      {"late and then twice", {1, 3, 2, 2}, 0, 1, 1, 1, 1, 1, 0, 0},
      {"late before the first", {10, 8, 11}, 1, 0, 0, 0, 1, 2, 0, 0},
      {"one stray", {1, 2, 30000, 3}, 0, 0, 0, 0, 0, 0, 1, 0},
      {"a new numbering", {1, 2, 30000, 30001, 30003}, 1, 1, 1, 0, 0, 0, 0, 1},
      {"as far as a loss may go", {0, 2999}, 2998, 1, 2998, 0, 0, 0, 0, 0},
      {"a new numbering ahead", {0, 1, 3001, 3002}, 0, 0, 0, 0, 0, 0, 0, 1},
      {"a new numbering behind", {500, 501, 0, 1}, 0, 0, 0, 0, 0, 0, 0, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RtpSequence sequence;
    for (const std::uint16_t number : c.numbers) {
      sequence.Add(number);
    }
    EXPECT_EQ(sequence.Received(), c.numbers.size());
    EXPECT_EQ(sequence.Lost(), c.lost);
    EXPECT_EQ(sequence.LossPeriods(), c.periods);
    EXPECT_EQ(sequence.LongestLoss(), c.longest);
    EXPECT_EQ(sequence.Duplicates(), c.duplicates);
    EXPECT_EQ(sequence.Reordering().Count(), c.reordered);
    EXPECT_EQ(sequence.Reordering().Max(), c.farthest);
    EXPECT_EQ(sequence.Strays(), c.strays);
    EXPECT_EQ(sequence.Restarts(), c.restarts);
  }
}

// 90 ticks a packet; what is far away keeps step with them, or does not.
TEST(RtpSequence, TimeStampsTellALongLossAndLateCopiesFromANewNumbering) {
  const struct {
    const char* name;
    std::uint32_t number, timestamp;
    std::uint64_t lost, duplicates, restarts;
  } cases[] = {
      {"10,000 lost in a long outage", 15000, 15000 * 90, 10000, 0, 0},
      {"forward by 10,000 with no time between", 15000, 5000 * 90, 0, 0, 1},
      {"from 0 on", 0, 5000 * 90, 0, 0, 1},
      {"from 0 on, of another clock", 0, 123456789, 0, 0, 1},
      {"copies of 300 packets", 4700, 4700 * 90, 0, 2, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RtpSequence sequence;
    for (std::uint32_t n = 0; n < 5000; ++n) {
      sequence.Add(static_cast<std::uint16_t>(n), n * 90);
    }
    for (std::uint32_t n = 0; n < 2; ++n) {
      sequence.Add(static_cast<std::uint16_t>(c.number + n), c.timestamp + n * 90);
    }
    EXPECT_EQ(sequence.Lost(), c.lost);
    EXPECT_EQ(sequence.Duplicates(), c.duplicates);
    EXPECT_EQ(sequence.Restarts(), c.restarts);
  }
}

TEST(RtpSequence, StaysExactOverManyWraps) {
  RtpSequence sequence;
  std::uint64_t lost = 0;
  std::uint64_t late = 0;
  // Every 97th packet is lost, and every 101st leaves 50 numbers late.
  for (std::uint64_t n = 5; n < 299'960; ++n) {
    if (n % 97 == 0) {
      ++lost;
    } else if (n % 101 != 0) {
      sequence.Add(static_cast<std::uint16_t>(n));
    }
    if (n > 60 && (n - 50) % 101 == 0 && (n - 50) % 97 != 0) {
      sequence.Add(static_cast<std::uint16_t>(n - 50));
      ++late;
    }
  }
  EXPECT_EQ(sequence.Lost(), lost);
  EXPECT_EQ(sequence.Reordering().Count(), late);
  EXPECT_EQ(sequence.Duplicates(), 0U);
  EXPECT_EQ(sequence.Restarts(), 0U);
}

}  // namespace
}  // namespace ipplay::measure
