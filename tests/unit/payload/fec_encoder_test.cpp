// SPDX-License-Identifier: MIT
#include "payload/fec_encoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "protocol/big_endian.h"

namespace ipplayout {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kLongestPayload = 8;

struct Media {
  std::uint8_t marker_and_type;
  std::uint16_t number;
  std::uint32_t time;
  Bytes payload;
};

Bytes RtpOf(const Media& media) {
  Bytes rtp(FecEncoder::kRtpHeaderLength + media.payload.size());
  rtp[0] = 0x80;
  rtp[1] = media.marker_and_type;
  StoreBigEndian<2>(media.number, &rtp[2]);
  StoreBigEndian<4>(media.time, &rtp[4]);
  StoreBigEndian<4>(0xAABBCCDD, &rtp[8]);
  std::ranges::copy(media.payload, rtp.begin() + FecEncoder::kRtpHeaderLength);
  return rtp;
}

Bytes Copy(std::span<const std::uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

// A matrix of two columns over the wrap of the number, with payloads of three lengths, a marker and
// a payload type that changes. The parities are worked out by hand.
TEST(FecEncoder, IsTheParityOfColumnsAndRows) {
  const Media kMedia[] = {{0x21, 65533, 0x00000001, {0x01}},
                          {0x21, 65534, 0x00000002, {0x0F, 0xF0}},
                          {0x21, 65535, 0x00000100, {0x10, 0x20}},
                          {0x21, 0, 0x00000200, {0x55}},
                          {0xA1, 1, 0xFFFFFFFF, {0x03, 0x00, 0x30}},
                          {0x21, 2, 0x00000003, {}},
                          {0x22, 3, 0x00000010, {0x04}},
                          {0x21, 4, 0x00000004, {0xAA, 0x01, 0x02}}};
  const Bytes kRows[] = {
      {0xFF, 0xFD, 0, 3, 0x80, 0, 0, 0, 0, 0, 0, 0x03, 0x40, 1, 2, 0, 0x0E, 0xF0},
      {0xFF, 0xFF, 0, 3, 0x80, 0, 0, 0, 0, 0, 0x03, 0x00, 0x40, 1, 2, 0, 0x45, 0x20},
      {0, 1, 0, 3, 0x80, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFC, 0x40, 1, 2, 0, 0x03, 0x00, 0x30},
      {0, 3, 0, 2, 0x83, 0, 0, 0, 0, 0, 0, 0x14, 0x40, 1, 2, 0, 0xAE, 0x01, 0x02}};
  const Bytes kColumns[] = {
      {0xFF, 0xFD, 0, 1, 0x83, 0, 0, 0, 0xFF, 0xFF, 0xFE, 0xEE, 0, 2, 4, 0, 0x16, 0x20, 0x30},
      {0xFF, 0xFE, 0, 0, 0x80, 0, 0, 0, 0, 0, 0x02, 0x05, 0, 2, 4, 0, 0xF0, 0xF1, 0x02}};
  FecEncoder encoder({2, 4, true, true}, kLongestPayload);
  for (std::size_t i = 0; i < std::size(kMedia); ++i) {
    encoder.Add(RtpOf(kMedia[i]));
    EXPECT_EQ(Copy(encoder.RowDue()), i % 2 == 1 ? kRows[i / 2] : Bytes{}) << i;
    EXPECT_TRUE(encoder.ColumnDue().empty()) << i;
  }
  for (const Bytes& column : kColumns) {
    ASSERT_TRUE(encoder.Flush());
    EXPECT_EQ(Copy(encoder.ColumnDue()), column);
    EXPECT_TRUE(encoder.RowDue().empty());
  }
  EXPECT_FALSE(encoder.Flush());
}

// Behind which datagram a column's FEC follows, and the first number that it protects.
using Due = std::pair<std::uint32_t, std::uint32_t>;

std::vector<Due> ColumnsOf(const FecMatrix& matrix, std::uint32_t datagrams) {
  FecEncoder encoder(matrix, kLongestPayload);
  std::vector<Due> due;
  const auto note = [&](std::uint32_t behind) {
    if (const auto bytes = encoder.ColumnDue(); !bytes.empty()) {
      due.emplace_back(behind, std::uint32_t{bytes[0]} << 8 | bytes[1]);
    }
  };
  for (std::uint32_t i = 0; i < datagrams; ++i) {
    encoder.Add(RtpOf({0x21, static_cast<std::uint16_t>(i), i, {0x47}}));
    note(i);
  }
  while (encoder.Flush()) {
    note(datagrams - 1);
  }
  return due;
}

// One column follows every D datagrams of the next matrix; what is left over follows the last one.
// A matrix that the stream does not fill is not protected.
TEST(FecEncoder, SpreadsAlignedColumnsOverTheNextMatrix) {
  constexpr struct {
    std::uint32_t columns, rows;
  } kCases[] = {{1, 4}, {4, 4}, {20, 5}, {5, 20}, {10, 10}, {20, 4}, {3, 7}};
  for (const auto& [columns, rows] : kCases) {
    const std::uint32_t size = columns * rows;
    const std::uint32_t datagrams = 3 * size - 1;
    std::vector<Due> expected;
    for (std::uint32_t column = 0; column < columns; ++column) {
      expected.emplace_back(size + column * rows, column);
    }
    for (std::uint32_t column = 0; column < columns; ++column) {
      expected.emplace_back(2 * size + column * rows, size + column);
    }
    EXPECT_EQ(ColumnsOf({columns, rows, false, true}, datagrams), expected)
        << columns << 'x' << rows;
    EXPECT_TRUE(ColumnsOf({columns, rows, true, true}, size - 1).empty());
  }
}

TEST(FecEncoder, StaggersColumnsSoThatTheyEndOneAfterTheOther) {
  const std::vector<Due> kFourByFour{{12, 0}, {17, 5}, {22, 10}, {27, 15}, {28, 16}, {33, 21}};
  EXPECT_EQ(ColumnsOf({4, 4, false, false}, 36), kFourByFour);
  // More columns than rows: some begin with the same row. Column c begins with row 4c/6.
  const std::vector<Due> kSixByFour{{18, 0},  {19, 1},  {26, 8},  {33, 15},
                                    {34, 16}, {41, 23}, {42, 24}, {43, 25}};
  EXPECT_EQ(ColumnsOf({6, 4, false, false}, 48), kSixByFour);
  // More rows than columns: column 1 begins with row 2.
  const std::vector<Due> kTwoByFive{{8, 0}, {13, 5}, {18, 10}};
  EXPECT_EQ(ColumnsOf({2, 5, false, false}, 20), kTwoByFive);
}

}  // namespace
}  // namespace ipplayout
