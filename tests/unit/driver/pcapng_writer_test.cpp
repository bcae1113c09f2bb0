// SPDX-License-Identifier: MIT
#include "driver/pcapng_writer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/support/own_folder.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

const platform::DeadlineWaiter kPatient;

// "0A 0D" to bytes.
std::string Bytes(const char* hex) {
  std::string bytes;
  for (int used = 0, value = 0;
       ::sscanf(hex, "%2x %n", reinterpret_cast<unsigned*>(&value), &used) == 1; hex += used) {
    bytes += static_cast<char>(value);
  }
  return bytes;
}

std::string FileOf(const PcapngWriter::Description& description,
                   const std::vector<PcapngWriter::Packet>& packets) {
  const OwnFolder folder;
  const auto opened = PcapngWriter::Open(folder.File("file"), description);
  EXPECT_EQ(opened.error, 0);
  for (const auto& packet : packets) {
    EXPECT_EQ(opened.value->Write(packet, kPatient), 0);
  }
  EXPECT_EQ(opened.value->Finish(), 0);
  return ContentOf(folder.File("file"));
}

// As drawn in the draft's figures 9 to 11 and its list of options.
TEST(PcapngWriter, WritesTheBlocksOfTheFormat) {
  const std::uint8_t five[] = {0xD1, 0xD2, 0xD3, 0xD4, 0xD5};
  const std::uint8_t four[] = {0xE1, 0xE2, 0xE3, 0xE4};
  // 0x0102030405060708 and 1 ns since 1970.
  const nanoseconds late(72'623'859'790'382'856);
  EXPECT_EQ(FileOf({"abcde", "eth0"}, {{late, five, 5, "why"}, {nanoseconds(1), four, 1500, {}}}),
            Bytes("0A 0D 0D 0A 2C 00 00 00 4D 3C 2B 1A 01 00 00 00 FF FF FF FF FF FF FF FF"
                  "04 00 05 00 61 62 63 64 65 00 00 00 00 00 00 00 2C 00 00 00"
                  "01 00 00 00 28 00 00 00 01 00 00 00 00 00 00 00"
                  "02 00 04 00 65 74 68 30 09 00 01 00 09 00 00 00 00 00 00 00 28 00 00 00"
                  "06 00 00 00 34 00 00 00 00 00 00 00 04 03 02 01 08 07 06 05"
                  "05 00 00 00 05 00 00 00 D1 D2 D3 D4 D5 00 00 00"
                  "01 00 03 00 77 68 79 00 00 00 00 00 34 00 00 00"
                  "06 00 00 00 24 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00"
                  "04 00 00 00 DC 05 00 00 E1 E2 E3 E4 24 00 00 00"));
}

TEST(PcapngWriter, LeavesOutWhatIsNotSaid) {
  EXPECT_EQ(FileOf({}, {}),
            Bytes("0A 0D 0D 0A 1C 00 00 00 4D 3C 2B 1A 01 00 00 00 FF FF FF FF FF FF FF FF"
                  "1C 00 00 00"
                  "01 00 00 00 20 00 00 00 01 00 00 00 00 00 00 00"
                  "09 00 01 00 09 00 00 00 00 00 00 00 20 00 00 00"));
}

TEST(PcapngWriter, CutsLongCommentsBetweenCharacters) {
  const std::size_t empty = FileOf({}, {}).size();
  std::string comment(65'534, 'c');
  comment += "\xC3\xA9";  // its second byte would be the 65,536th
  const std::string file = FileOf({}, {{nanoseconds(0), {}, 0, comment}});
  EXPECT_EQ(file.size(), empty + 28 + 4 + 65'536 + 4 + 4);
  EXPECT_EQ(file.substr(empty + 28, 4), Bytes("01 00 FE FF"));
  EXPECT_EQ(file.substr(empty + 32 + 65'530, 8), Bytes("63 63 63 63 00 00 00 00"));
}

TEST(PcapngWriter, RefusesAPacketThatIsTooLongAndGoesOn) {
  const std::vector<std::uint8_t> bytes(PcapngWriter::kMostPacketBytes + 1);
  const std::span<const std::uint8_t> longest(bytes.data(), bytes.size() - 1);
  const auto opened = PcapngWriter::Open("/dev/null", {});
  EXPECT_EQ(opened.value->Write({nanoseconds(0), bytes, bytes.size(), {}}, kPatient), EMSGSIZE);
  const std::string comment(65'535, 'c');
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(opened.value->Write({nanoseconds(0), longest, bytes.size(), comment}, kPatient), 0);
  }
  EXPECT_EQ(opened.value->Finish(), 0);
}

}  // namespace
}  // namespace ipplayout
