#include "protocol/internet_checksum.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "tests/support/bytes.h"

namespace ipplayout {
namespace {

// RFC 1071 section 1, word by word.
std::uint16_t PlainChecksum(std::span<const std::uint8_t> bytes) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    const std::uint32_t low = i + 1 < bytes.size() ? bytes[i + 1] : 0;
    sum += bytes[i] * 256U + low;
    sum = (sum & 0xFFFF) + (sum >> 16);
  }
  return static_cast<std::uint16_t>(0xFFFF - sum);
}

TEST(InternetChecksumTest, AgreesWithPublishedAndHandMadeSums) {
  const struct {
    const char* bytes;
    std::uint16_t checksum;
  } cases[] = {
      {"00 01 f2 03 f4 f5 f6 f7", 0x220D},  // RFC 1071 section 3: sum ddf2
      {"45 00 00 73 00 00 40 00 40 11 00 00 c0 a8 00 01 c0 a8 00 c7", 0xB861},
      {"", 0xFFFF},
      {"45", 0xBAFF},        // the odd byte is a high byte
      {"00 01 f2", 0x0DFE},  // 0001 + f200
      {"ff ff 00 01", 0xFFFE},
      {"ff ff ff ff", 0x0000},
  };
  for (const auto& [bytes, checksum] : cases) {
    EXPECT_EQ(InternetChecksum(FromHex(bytes)), checksum) << bytes;
  }
}

TEST(InternetChecksumTest, AgreesWithThePlainSumAtEveryLengthAndAlignment) {
  std::mt19937 random(1);
  Bytes data(16200);
  for (auto& byte : data) {
    byte = static_cast<std::uint8_t>(random());
  }
  const Bytes ones(16200, 0xFF);  // every addition carries
  for (const Bytes& source : {data, ones}) {
    for (std::size_t offset = 0; offset < 16; ++offset) {
      for (std::size_t length = 0; length < 200; ++length) {
        const auto part = std::span(source).subspan(offset, length);
        ASSERT_EQ(InternetChecksum(part), PlainChecksum(part)) << offset << ", " << length;
      }
      for (const std::size_t length : {1471U, 1472U, 16127U, 16128U}) {
        const auto part = std::span(source).subspan(offset, length);
        ASSERT_EQ(InternetChecksum(part), PlainChecksum(part)) << offset << ", " << length;
      }
    }
  }
}

}  // namespace
}  // namespace ipplayout
