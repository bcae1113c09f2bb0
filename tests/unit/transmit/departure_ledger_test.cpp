// SPDX-License-Identifier: MIT
#include "transmit/departure_ledger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "transmit/ledger_file.h"

namespace ipplayout {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr std::uint8_t kByte = 0x5A;

std::uint64_t Add(DepartureLedger& ledger, std::uint64_t datagram, bool awaits_stamp,
                  nanoseconds place = {}) {
  IpPlayoutDeparture departure{};
  departure.Frame.Datagram = datagram;
  departure.Frame.Bytes = 1;
  departure.PlaceNs = departure.Frame.DepartureNs = place.count();
  return ledger.Add(departure, {&kByte, 1}, awaits_stamp);
}

// Datagrams and their stamps.
std::vector<std::pair<std::uint64_t, std::int64_t>> TakeAll(DepartureLedger& ledger) {
  std::vector<std::pair<std::uint64_t, std::int64_t>> all;
  std::array<std::pair<std::uint64_t, std::int64_t>, 2> some;
  std::size_t count = 0;
  do {
    count = TakeRecords(ledger, std::span<decltype(some)::value_type>(some),
                        [](const IpPlayoutDeparture& departure) {
                          return std::pair(departure.Frame.Datagram, departure.StampNs);
                        });
    all.insert(all.end(), some.begin(), some.begin() + static_cast<std::ptrdiff_t>(count));
  } while (count == some.size());
  return all;
}

TEST(DepartureLedgerTest, KeepsTheOldestAndCountsTheRest) {
  DepartureLedger ledger(3, 0);
  for (std::uint64_t round = 0; round < 4; ++round) {
    for (std::uint64_t i = 0; i < 5; ++i) {
      Add(ledger, 10 * round + i, false);
    }
    EXPECT_EQ(ledger.LeftOut(), 2 * (round + 1));
    EXPECT_THAT(TakeAll(ledger), ElementsAre(Pair(10 * round, -1), Pair(10 * round + 1, -1),
                                             Pair(10 * round + 2, -1)));
  }
}

TEST(DepartureLedgerTest, AStampIsWaitedForUntilItComesOrCannot) {
  DepartureLedger ledger(4, 0);
  const auto first = Add(ledger, 0, true);
  Add(ledger, 1, true);
  const auto third = Add(ledger, 2, true);
  Add(ledger, 3, false);
  EXPECT_THAT(TakeAll(ledger), IsEmpty());
  EXPECT_EQ(Add(ledger, 4, false), DepartureLedger::kNowhere);
  ledger.Stamp(first, nanoseconds(70));
  EXPECT_THAT(TakeAll(ledger), ElementsAre(Pair(0, 70)));
  ledger.Stamp(third, nanoseconds(72));  // that of the one before is lost
  EXPECT_THAT(TakeAll(ledger), ElementsAre(Pair(1, -1), Pair(2, 72), Pair(3, -1)));
  ledger.Stamp(first, nanoseconds(73));  // told twice: its place is another one's by now

  Add(ledger, 5, true, seconds(3));
  Add(ledger, 6, false, seconds(4));
  EXPECT_THAT(TakeAll(ledger), IsEmpty());
  Add(ledger, 7, true, seconds(4) + milliseconds(1));
  EXPECT_THAT(TakeAll(ledger), ElementsAre(Pair(5, -1), Pair(6, -1)));
  ledger.Settle();
  EXPECT_THAT(TakeAll(ledger), ElementsAre(Pair(7, -1)));
}

TEST(DepartureLedgerTest, WhoTakesBesideTheTransmitterGetsAllInOrder) {
  constexpr std::uint64_t kRecords = 100'000;
  DepartureLedger ledger(64, 1);
  std::uint64_t taken = 0;
  std::uint64_t last = 0;
  std::jthread taker([&](const std::stop_token& stop) {
    for (bool goes_on = true; goes_on;) {
      ledger.PrepareToWait();
      goes_on = !stop.stop_requested();
      ledger.WaitUntil(goes_on ? platform::DeadlineWaiter::kNever : nanoseconds(0));
      while (const IpPlayoutDeparture* departure = ledger.Front()) {
        const auto frame = ledger.FrameOf(*departure);
        EXPECT_TRUE(departure->Frame.Datagram > last || taken == 0);
        EXPECT_EQ(departure->StampNs, departure->Frame.Datagram % 3 == 0 ? 7 : -1);
        EXPECT_EQ(frame[0], kByte);
        last = departure->Frame.Datagram;
        ++taken;
        ledger.Pop();
      }
    }
  });
  for (std::uint64_t i = 0; i < kRecords; ++i) {
    while (ledger.IsFull()) {
      std::this_thread::yield();
    }
    ledger.Stamp(Add(ledger, i, i % 3 == 0), nanoseconds(7));
  }
  taker.request_stop();
  ledger.Wake();
  taker.join();
  EXPECT_EQ(taken, kRecords);
  EXPECT_EQ(ledger.LeftOut(), 0U);
}

TEST(LedgerFileTest, SaysWhatBecameOfAFrame) {
  // Place, hand-over, stamp; what was done.
  const struct {
    std::int64_t place, departure, stamp;
    std::uint32_t copy, did;
    const char* comment;
  } kRows[] = {
      {1000, 13'345, -1, 0, 0, "datagram 7: 12.345 us late (hand-over)"},
      {1000, 2000, 4000, 2, 0, "datagram 7, copy 2: 3.000 us late (kernel stamp)"},
      {3000, 2950, -1, 0, IPPLAYOUT_DID_SEND_HELD | IPPLAYOUT_DID_UDP_CHECKSUM,
       "datagram 7: 0.050 us early (hand-over); an earlier one, delayed on purpose until here; "
       "wrong "
       "UDP checksum on purpose"},
      {3000, -1, -1, 0, IPPLAYOUT_DID_LOSE | IPPLAYOUT_DID_FEC_ROW,
       "datagram 7: not sent; FEC of a row; lost on purpose"},
      {3000, -1, -1, 0, IPPLAYOUT_DID_REFUSE, "datagram 7: not sent; refused by the destination"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(LedgerComment({{7, row.copy, row.did, 0, row.departure, 0, 0}, row.place, row.stamp}),
              row.comment);
  }
}

TEST(LedgerFileTest, ADiskThatIsFullIsReportedAndHoldsUpNobody) {
  constexpr std::uint64_t kFrames = 5000;
  DepartureLedger ledger(kFrames, 1);
  auto file = LedgerFile::Open("/dev/full", "near", seconds(0), ledger);
  ASSERT_NE(file.value, nullptr);
  ASSERT_TRUE(file.value->Start());
  for (std::uint64_t i = 0; i < kFrames; ++i) {
    Add(ledger, i, false);
  }
  EXPECT_EQ(file.value->Finish(), ENOSPC);
  EXPECT_EQ(ledger.LeftOut(), 0U);
  EXPECT_GT(file.value->LeftOut(), 0U);
  EXPECT_THAT(TakeAll(ledger), IsEmpty());
}

}  // namespace
}  // namespace ipplayout
