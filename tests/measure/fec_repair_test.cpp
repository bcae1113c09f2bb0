// SPDX-License-Identifier: MIT
#include "host/measure/figures/fec_repair.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "frame_builder.h"
#include "host/measure/figures/fec_datagram.h"

namespace ipplay::measure {
namespace {

using testing::Append16;
using testing::Append32;
using testing::Bytes;

Bytes PayloadOf(std::uint32_t number) {
  return Bytes(4 + number % 3, static_cast<std::uint8_t>(number * 37));
}

// A stream whose number and time stamp are its datagrams' index, and its FEC.
class Receiver {
 public:
  void Media(std::uint32_t number, bool is_whole = true) {
    const Bytes payload = PayloadOf(number);
    const auto short_number = static_cast<std::uint16_t>(number);
    repair.AddMedia({short_number, 33, number, is_whole ? payload : Bytes{}, is_whole},
                    sequence_.Add(short_number), ++now_);
  }

  void MediaBetween(std::uint32_t first, std::uint32_t end,
                    const std::vector<std::uint32_t>& lost = {}) {
    for (std::uint32_t number = first; number < end; ++number) {
      if (std::ranges::find(lost, number) == lost.end()) {
        Media(number);
      }
    }
  }

  // In front of the measurement of FEC.
  void MediaOnly(std::uint32_t first, std::uint32_t end, const std::vector<std::uint32_t>& lost) {
    for (std::uint32_t number = first; number < end; ++number) {
      if (std::ranges::find(lost, number) == lost.end()) {
        sequence_.Add(static_cast<std::uint16_t>(number));
      }
    }
  }

  void Fec(std::uint32_t base, std::uint8_t offset, std::uint8_t count, std::uint8_t damage = 0) {
    std::uint32_t length = damage;
    std::uint32_t time = 0;
    std::uint8_t type = 0;
    Bytes parity(6);
    for (std::uint32_t i = 0; i < count; ++i) {
      const Bytes payload = PayloadOf(base + i * offset);
      length ^= static_cast<std::uint32_t>(payload.size());
      time ^= base + i * offset;
      type ^= 33;
      for (std::size_t at = 0; at < payload.size(); ++at) {
        parity[at] = static_cast<std::uint8_t>(parity[at] ^ payload[at]);
      }
    }
    Bytes bytes;
    Append16(bytes, base & 0xFFFF);
    Append16(bytes, length);
    Append32(bytes, std::uint32_t{0x80U | type} << 24);
    Append32(bytes, time);
    const std::uint8_t flags = offset == 1 ? 0x40 : 0;
    bytes.insert(bytes.end(), {flags, offset, count, 0});
    bytes.insert(bytes.end(), parity.begin(), parity.end());
    const auto fec = ParseFecDatagram(bytes);
    ASSERT_TRUE(fec);
    repair.AddFec(*fec, ++now_);
  }

  // lost, repaired, too many, unprotected; right and wrong parity
  std::vector<std::uint64_t> Figures() {
    repair.Finish();
    const FecCounters& c = repair.Counters();
    return {c.lost, c.repaired, c.too_many, c.unprotected, c.parity_right, c.parity_wrong};
  }

  std::vector<std::uint64_t> unrepaired;  // of each event
  std::uint64_t wrong = 0;
  FecRepair repair{{[this](std::int64_t) { ++wrong; },
                    [this](std::int64_t, std::uint64_t count) { unrepaired.push_back(count); }}};

 private:
  RtpSequence sequence_;
  std::int64_t now_ = 0;
};

using Counts = std::vector<std::uint64_t>;

TEST(FecRepair, WaitsForFecAndForMediaThatComeInAnyOrder) {
  Receiver early;  // FEC comes before the last of what it protects
  early.MediaBetween(0, 4);
  early.Fec(0, 1, 5);
  early.MediaBetween(4, 8);
  EXPECT_EQ(early.Figures(), (Counts{0, 0, 0, 0, 1, 0}));

  Receiver late;  // one comes late, and the other one can be rebuilt then
  late.MediaBetween(0, 10, {2, 3});
  late.Fec(0, 1, 5);
  late.Media(2);
  EXPECT_EQ(late.Figures(), (Counts{1, 1, 0, 0, 0, 0}));

  Receiver after;  // what was rebuilt comes after all
  after.MediaBetween(0, 10, {2});
  after.Fec(0, 1, 5);
  after.Media(2);
  EXPECT_EQ(after.Figures(), (Counts{0, 0, 0, 0, 1, 0}));

  Receiver gap;  // before its media, one of which never comes
  gap.MediaBetween(0, 3);
  gap.Fec(0, 1, 5);
  gap.MediaBetween(3, 8, {3});
  EXPECT_EQ(gap.Figures(), (Counts{1, 1, 0, 0, 0, 0}));
}

TEST(FecRepair, KnowsWhyALossStays) {
  Receiver receiver;
  receiver.MediaBetween(0, 30, {5, 6, 11, 20, 21, 22});
  receiver.Fec(5, 1, 5);   // lacks two
  receiver.Fec(10, 1, 5);  // repairs one
  EXPECT_EQ(receiver.Figures(), (Counts{6, 1, 2, 3, 0, 0}));
  EXPECT_EQ(receiver.unrepaired, (Counts{2, 3}));
}

TEST(FecRepair, FollowsNumberingsAndHoles) {
  Receiver hole;  // larger than all that is kept
  hole.MediaBetween(0, 10);
  hole.Media(2000);
  hole.MediaBetween(2001, 2010, {2003});
  hole.Fec(2000, 1, 5);
  EXPECT_EQ(hole.Figures(), (Counts{1991, 1, 0, 1990, 0, 0}));

  Receiver restart;
  restart.MediaBetween(0, 10, {4});
  restart.MediaBetween(40000, 40010, {40005});
  restart.Fec(40002, 1, 5);
  restart.Fec(0, 1, 5);  // of the numbering before: too late
  // Of the new numbering the first one is taken for a stray.
  EXPECT_EQ(restart.Figures(), (Counts{2, 1, 0, 1, 0, 0}));

  Receiver wrap;
  wrap.MediaBetween(65530, 65545, {65538});
  wrap.Fec(65532, 2, 5);
  EXPECT_EQ(wrap.Figures(), (Counts{1, 1, 0, 0, 0, 0}));

  Receiver joined;  // in the middle of a row
  joined.MediaBetween(3, 10, {7});
  joined.Fec(0, 1, 5);
  joined.Fec(5, 1, 5);
  EXPECT_EQ(joined.Figures(), (Counts{1, 1, 0, 0, 0, 0}));

  Receiver end;  // the last ones are lost, and FEC knows it
  end.MediaBetween(0, 8);
  end.Fec(5, 1, 5);
  EXPECT_EQ(end.Figures(), (Counts{2, 0, 2, 0, 0, 0}));
}

TEST(FecRepair, UsesFecOfWhatCameBeforeTheFirst) {
  Receiver one;  // with 0 that is rebuilt 5 is, and 6 with that
  one.MediaBetween(0, 20, {0, 5, 6});
  one.Fec(0, 1, 5);
  one.Fec(0, 5, 4);
  one.Fec(5, 1, 5);
  EXPECT_EQ(one.Figures(), (Counts{2, 2, 0, 0, 0, 0}));
}

// What FEC protects while no media comes is lost, and goes on being so.
TEST(FecRepair, FollowsFecWhereMediaHasDied) {
  const auto feed = [](Receiver& receiver, std::uint32_t first, std::uint32_t end) {
    for (std::uint32_t base = first; base < end; base += 10) {
      receiver.Fec(base, 1, 10);
    }
  };
  Receiver dead;
  dead.MediaBetween(0, 100);
  feed(dead, 100, 70'000);
  EXPECT_EQ(dead.Figures(), (Counts{69'900, 0, 69'900, 0, 0, 0}));

  Receiver back;
  back.MediaBetween(0, 100);
  feed(back, 100, 1000);
  back.MediaBetween(1000, 1010);
  feed(back, 1000, 1010);
  EXPECT_EQ(back.Figures(), (Counts{900, 0, 900, 0, 1, 0}));

  Receiver behind;  // only later than its FEC
  behind.MediaBetween(0, 100);
  feed(behind, 100, 600);
  behind.MediaBetween(100, 600, {250});
  EXPECT_EQ(behind.Figures(), (Counts{1, 1, 0, 0, 49, 0}));

  Receiver other;  // FEC of something else
  other.MediaBetween(0, 100);
  feed(other, 1000, 2000);
  EXPECT_EQ(other.Figures(), (Counts{0, 0, 0, 0, 0, 0}));
}

// Beside a stream that had lost packets by then.
TEST(FecRepair, CountsWhatWasLostBeforeItBegan) {
  Receiver receiver;
  receiver.MediaOnly(0, 100, {20, 21, 97});
  receiver.repair.BeginLate(3);
  receiver.Media(102);
  receiver.Media(97);
  receiver.Media(101);
  receiver.MediaBetween(103, 110, {105});
  receiver.Fec(100, 1, 5);
  receiver.Fec(105, 1, 5);
  EXPECT_EQ(receiver.Figures(), (Counts{4, 1, 0, 3, 0, 0}));
}

TEST(FecRepair, TellsWrongParityFromWhatItCannotCheck) {
  Receiver receiver;
  receiver.MediaBetween(0, 20, {12});
  receiver.Fec(0, 1, 5, 1);
  receiver.Fec(10, 1, 5, 0x40);  // would rebuild a datagram longer than any
  receiver.Media(20, false);
  receiver.MediaBetween(21, 25);
  receiver.Fec(20, 1, 5);
  EXPECT_EQ(receiver.Figures(), (Counts{1, 0, 1, 0, 0, 2}));
  EXPECT_EQ(receiver.wrong, 2U);
}

TEST(FecRepair, CountsNothingMoreOnceItHasGivenUp) {
  Receiver receiver;
  receiver.MediaBetween(0, 10, {4});
  receiver.Fec(0, 1, 5);
  receiver.repair.GiveUp();
  receiver.MediaBetween(10, 20, {14});
  receiver.Fec(10, 1, 5);
  EXPECT_EQ(receiver.Figures(), (Counts{0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(receiver.repair.Counters().row_datagrams, 2U);
}

TEST(FecDatagram, IsOneOnlyIfEveryFieldIsAllowed) {
  const Bytes good{0, 1, 5, 36, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 5, 4, 0, 1, 2};
  ASSERT_TRUE(ParseFecDatagram(good));
  const struct {
    std::size_t at;
    std::uint8_t value;
  } kWrong[] = {{4, 0x21}, {5, 1},  {6, 1},  {7, 1},    {12, 0x80}, {12, 0x08},
                {12, 1},   {13, 0}, {14, 0}, {14, 200}, {15, 1},    {12, 0x40}};
  for (const auto& [at, value] : kWrong) {
    Bytes wrong = good;
    wrong[at] = value;
    EXPECT_FALSE(ParseFecDatagram(wrong)) << at << ' ' << int{value};
  }
  EXPECT_FALSE(ParseFecDatagram(Bytes(good.begin(), good.begin() + 15)));
}

}  // namespace
}  // namespace ipplay::measure
