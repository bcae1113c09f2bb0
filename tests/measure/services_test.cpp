// SPDX-License-Identifier: MIT
#include "host/measure/figures/services.h"

#include <gtest/gtest.h>

#include "host/measure/figures/dvb_text.h"
#include "ts_builder.h"

namespace ipplay::measure {
namespace {

using testing::Bytes;
using testing::FromHex;
using testing::SectionBytes;

TEST(ServiceList, ReadsWhatTheTablesSay) {
  ServiceList list;
  EXPECT_TRUE(list.TakePat(SectionBytes(0x00, 7, FromHex("0000 e010 0001 e020 0002 e021"))));
  EXPECT_FALSE(list.IsComplete());
  // H.264 with the clock, AC-3 and teletext as private data, an access control message's PID.
  const Bytes pmt =
      SectionBytes(0x02, 1,
                   FromHex("e100 f006 0904 0500 e5a0"
                           "1b e100 f000"
                           "06 e101 f009 6a01 00 0a04 66726100"
                           "06 e102 f007 5605 646575 0900"
                           "86 e103 f0ff"));  // its descriptors would leave the section
  EXPECT_TRUE(list.TakePmt(0x20, pmt));
  EXPECT_FALSE(list.TakePmt(0x20, pmt));
  EXPECT_FALSE(list.TakePmt(0x21, pmt));
  EXPECT_TRUE(list.TakePmt(0x21, SectionBytes(0x02, 2, FromHex("ffff f000"))));
  EXPECT_TRUE(list.IsComplete());
  EXPECT_EQ(list.NetworkPid(), 0x10);
  const Service& service = list.Services().at(1);
  EXPECT_EQ(service.pcr_pid, 0x100);
  EXPECT_EQ(service.ecm_pids, std::vector<std::uint16_t>{0x5A0});
  const struct {
    std::uint16_t pid;
    ComponentKind kind;
    const char* coding;
    const char* language;
  } components[] = {{0x100, ComponentKind::kVideo, "H.264", ""},
                    {0x101, ComponentKind::kAudio, "AC-3", "fra"},
                    {0x102, ComponentKind::kSubtitles, "teletext", "deu"},
                    {0x103, ComponentKind::kData, "SCTE 35", ""}};
  ASSERT_EQ(service.components.size(), 4U);
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(service.components[i].pid, components[i].pid);
    EXPECT_EQ(service.components[i].kind, components[i].kind);
    EXPECT_STREQ(service.components[i].coding, components[i].coding);
    EXPECT_EQ(service.components[i].language, components[i].language);
  }
  // Provider "A", name "Ö1" in the table without a number: an umlaut mark, then its letter.
  list.TakeSdt(SectionBytes(0x42, 7, FromHex("0001 ff 0001 fc 8009 48 07 01 01 41 03 c84f31")));
  EXPECT_EQ(list.Names().at(1).provider, "A");
  EXPECT_EQ(list.Names().at(1).name, "Ö1");
  EXPECT_TRUE(list.TakePat(SectionBytes(0x00, 7, FromHex("0002 e021"))));
  EXPECT_EQ(list.Services().size(), 1U);
}

TEST(DvbText, ReadsEveryKindOfTable) {
  const struct {
    const char* name;
    const char* hex;
    const char* utf8;
  } cases[] = {
      {"none", "", ""},
      {"ISO/IEC 6937 with the euro sign", "54a4c2 65", "T€é"},
      {"ISO 8859-5 by one byte", "01 c0", "Р"},
      {"ISO 8859-2 by three", "100002 b3", "ł"},
      {"UCS-2", "11 0416 e08a 0041", "ЖA"},
      {"UTF-8 with emphasis", "15 c286 e282ac c287", "€"},
      {"Korean", "12 b0a1", "가"},
      {"a line break and control characters", "41 8a 07 42", "AB"},
      {"reserved table", "0c 41ff", "A?"},
      {"cut off in its table's number", "10 00", ""},
      {"cut off in a character", "11 0416 04", "Ж?"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(DvbText(FromHex(c.hex)), c.utf8);
  }
}

}  // namespace
}  // namespace ipplay::measure
