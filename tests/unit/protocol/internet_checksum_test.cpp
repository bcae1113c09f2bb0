// SPDX-License-Identifier: MIT
// The sums on the wire are of few lengths, and always begin where a header does.
#include "protocol/internet_checksum.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace ipplayout {
namespace {

using Bytes = std::vector<std::uint8_t>;

// RFC 1071 section 1, word by word.
std::uint16_t PlainChecksum(std::span<const std::uint8_t> bytes) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    sum += bytes[i] * 256U + (i + 1 < bytes.size() ? bytes[i + 1] : 0);
    sum = (sum & 0xFFFF) + (sum >> 16);
  }
  return static_cast<std::uint16_t>(0xFFFF - sum);
}

TEST(InternetChecksumTest, AgreesWithThePlainSumAtEveryLengthAndAlignment) {
  const Bytes example{0x00, 0x01, 0xF2, 0x03, 0xF4, 0xF5, 0xF6, 0xF7};
  EXPECT_EQ(InternetChecksum(example), 0x220D);  // RFC 1071 section 3: sum ddf2
  std::mt19937 random(1);
  Bytes data(16200);
  std::generate(data.begin(), data.end(), [&] { return static_cast<std::uint8_t>(random()); });
  const Bytes ones(16200, 0xFF);  // every addition carries
  for (const Bytes& source : {data, ones}) {
    for (std::size_t offset = 0; offset < 16; ++offset) {
      for (std::size_t length = 0; length <= 16128; length += length == 200 ? 15900 : 1) {
        const auto part = std::span(source).subspan(offset, length);
        ASSERT_EQ(InternetChecksum(part), PlainChecksum(part)) << offset << ", " << length;
      }
    }
  }
}

}  // namespace
}  // namespace ipplayout
