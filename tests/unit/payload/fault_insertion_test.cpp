// SPDX-License-Identifier: MIT
#include "payload/fault_insertion.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <vector>

#include "platform/random.h"

namespace ipplayout {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

constexpr std::size_t kPayload = 1316;

class FaultInsertionTest : public testing::Test {
 protected:
  void Configure(const IpPlayoutFaults& faults) { insertion.Configure(faults, false); }

  // What is ordered of the layers, which do it, for a datagram each millisecond.
  std::uint32_t Next() {
    const nanoseconds due = index * 1ms;
    insertion.Begin(index, due, kPayload);
    errors.PrepareForPacket(index);
    std::uint32_t did = insertion.IsDuplicated() ? std::uint32_t{IPPLAYOUT_DID_DUPLICATE} : 0;
    did |= insertion.IsCorrupt() ? std::uint32_t{IPPLAYOUT_DID_CORRUPT} : 0;
    did |= errors.IsSequenceError(1) != 0 ? std::uint32_t{IPPLAYOUT_DID_DELAY} : 0;
    did |= errors.IsUdpChecksumError(1) != 0 ? std::uint32_t{IPPLAYOUT_DID_UDP_CHECKSUM} : 0;
    did |= errors.IsPacketLoss(1) != 0 ? std::uint32_t{IPPLAYOUT_DID_LOSE} : 0;
    insertion.End(index++, due, did);
    return did;
  }

  std::vector<IpPlayoutDone> Done() {
    std::array<IpPlayoutDone, 16> out;
    const std::size_t taken = orders.TakeDone(out);
    return {out.begin(), out.begin() + static_cast<std::ptrdiff_t>(taken)};
  }

  const std::uint32_t protocol = IPPLAYOUT_RTP;
  platform::Random random{7};
  CErrorInsertionManager errors{protocol, random};
  FaultOrders orders;
  FaultInsertion insertion{orders, errors, random};
  std::uint64_t index = 0;
};

TEST_F(FaultInsertionTest, OrdersOfOneMomentHitDatagramsOfTheirOwn) {
  Configure({});
  for (std::uint64_t number = 1; number <= 4; ++number) {
    ASSERT_TRUE(orders.Add({number, IPPLAYOUT_DID_LOSE, 1, 0, 0, 3'000'000, 0}));
  }
  ASSERT_TRUE(orders.Add({5, IPPLAYOUT_DID_DELAY, 2, 3, 0, 3'000'000, 0}));
  ASSERT_TRUE(orders.Add({6, IPPLAYOUT_DID_UDP_CHECKSUM, 1, 0, 0, 2'500'000, 0}));
  std::vector<std::uint32_t> did;
  for (int i = 0; i < 12; ++i) {
    did.push_back(Next());
  }
  constexpr std::uint32_t kLose = IPPLAYOUT_DID_LOSE;
  constexpr std::uint32_t kDelay = IPPLAYOUT_DID_DELAY;
  EXPECT_EQ(did, (std::vector<std::uint32_t>{0, 0, 0, IPPLAYOUT_DID_UDP_CHECKSUM, kLose, kLose,
                                             kLose, kLose, kDelay, kDelay, 0, 0}));
  const auto done = Done();
  ASSERT_EQ(done.size(), 6U);
  EXPECT_EQ(done[0].Number, 6U);
  EXPECT_EQ(done[4].Number, 4U);
  EXPECT_EQ(done[4].Datagram, 7U);
  EXPECT_EQ(done[5].Count, 2U);
  EXPECT_EQ(done[5].Datagram, 8U);
  EXPECT_EQ(done[5].FirstDueNs, 8'000'000);
  EXPECT_EQ(done[5].LastDueNs, 9'000'000);
  EXPECT_EQ(insertion.Counts().Waiting, 0U);
}

TEST_F(FaultInsertionTest, ABreakLosesWhatIsDueInItsTime) {
  Configure({});
  ASSERT_TRUE(orders.Add({1, IPPLAYOUT_DID_LOSE, 0, 0, 0, 1'500'000, 3'200'000}));
  ASSERT_TRUE(orders.Add({2, IPPLAYOUT_DID_CORRUPT, 1, 1, 0, 3'000'000, 0}));
  std::vector<std::uint32_t> did;
  for (int i = 0; i < 8; ++i) {
    did.push_back(Next());
  }
  constexpr std::uint32_t kLose = IPPLAYOUT_DID_LOSE;
  EXPECT_EQ(did, (std::vector<std::uint32_t>{0, 0, kLose, kLose, kLose, kLose,
                                             IPPLAYOUT_DID_CORRUPT, 0}));
  const auto done = Done();
  ASSERT_EQ(done.size(), 2U);
  EXPECT_EQ(done[0].Count, 4U);
  EXPECT_FALSE(insertion.IsLinkDown());
}

TEST_F(FaultInsertionTest, WhatTheEndCutsShortIsReportedAsFarAsItWent) {
  Configure({});
  ASSERT_TRUE(orders.Add({1, IPPLAYOUT_DID_LOSE, 10, 0, 0, 0, 0}));
  ASSERT_TRUE(orders.Add({2, IPPLAYOUT_DID_LOSE, 1, 0, 0, 0, 0}));
  Next();
  Next();
  insertion.Finish();
  const auto done = Done();
  ASSERT_EQ(done.size(), 1U);
  EXPECT_EQ(done[0].Count, 2U);
  EXPECT_EQ(insertion.Counts().Waiting, 1U);
}

TEST_F(FaultInsertionTest, ThereIsAnEndToOrdersAndReports) {
  for (std::size_t i = 0; i < FaultOrders::kMost; ++i) {
    ASSERT_TRUE(orders.Add({i, IPPLAYOUT_DID_LOSE, 1, 0, 0, 0, 0}));
  }
  EXPECT_FALSE(orders.Add({0, IPPLAYOUT_DID_LOSE, 1, 0, 0, 0, 0}));
  for (std::size_t i = 0; i < FaultOrders::kMost; ++i) {
    Next();
  }
  ASSERT_TRUE(orders.Add({0, IPPLAYOUT_DID_LOSE, 1, 0, 0, 0, 0}));
  Next();
  EXPECT_EQ(insertion.Counts().NotReported, 1U);
  EXPECT_EQ(Done().front().Number, 1U) << "the oldest one went";
}

TEST_F(FaultInsertionTest, AnOrderHasItsDatagramToItself) {
  IpPlayoutFaults faults{};
  faults.Corrupt = 1;
  faults.CorruptBits = 1;
  faults.DuplicateCount = 1;
  faults.DuplicateRange = 2;
  Configure(faults);
  ASSERT_TRUE(orders.Add({1, IPPLAYOUT_DID_UDP_CHECKSUM, 1, 0, 0, 2'000'000, 0}));
  constexpr std::uint32_t kCorrupt = IPPLAYOUT_DID_CORRUPT;
  for (const std::uint32_t expected :
       {kCorrupt | IPPLAYOUT_DID_DUPLICATE, kCorrupt, std::uint32_t{IPPLAYOUT_DID_UDP_CHECKSUM},
        kCorrupt, kCorrupt | IPPLAYOUT_DID_DUPLICATE}) {
    EXPECT_EQ(Next(), expected);
  }
}

// That of the order, or else that of all delays.
TEST_F(FaultInsertionTest, ADelayIsBehindSoManyDatagrams) {
  IpPlayoutFaults faults{};
  faults.DelayDistance = 2;
  Configure(faults);
  PDU frame(16);
  for (const std::uint32_t amount : {0U, 5U}) {
    ASSERT_TRUE(orders.Add({1, IPPLAYOUT_DID_DELAY, 1, amount, 0, 0, 0}));
    const std::uint64_t delayed = index;
    ASSERT_EQ(Next(), std::uint32_t{IPPLAYOUT_DID_DELAY});
    ASSERT_TRUE(errors.HoldFrame(frame, 0));
    std::uint64_t later = 0;
    do {
      errors.PrepareForPacket(delayed + ++later);
    } while (errors.GetHeldFrame(0) == nullptr && later < 100);
    EXPECT_EQ(later, (amount == 0 ? 2 : amount) + 1);
    errors.ReleaseHeldFrame(0);
  }
}

// Standard deviations are those of a binomial distribution; four of them.
TEST_F(FaultInsertionTest, ChancesAreKept) {
  constexpr int kDatagrams = 100'000;
  IpPlayoutFaults faults{};
  faults.Lose = 0.01;
  faults.Delay = 0.05;
  faults.DelayDistance = 1;
  faults.Corrupt = 0.2;
  faults.CorruptBits = 3;
  faults.Duplicate = 1;
  Configure(faults);
  int lost = 0;
  int delayed = 0;
  int corrupt = 0;
  for (int i = 0; i < kDatagrams; ++i) {
    const std::uint32_t did = Next();
    const bool is_lost = (did & IPPLAYOUT_DID_LOSE) != 0;
    EXPECT_EQ(did == IPPLAYOUT_DID_LOSE, is_lost);
    EXPECT_EQ((did & IPPLAYOUT_DID_DUPLICATE) != 0, !is_lost);
    lost += is_lost;
    delayed += (did & IPPLAYOUT_DID_DELAY) != 0;
    corrupt += (did & IPPLAYOUT_DID_CORRUPT) != 0;
  }
  const auto expect = [](int count, double chance) {
    EXPECT_NEAR(count, kDatagrams * chance, 4 * std::sqrt(kDatagrams * chance * (1 - chance)));
  };
  expect(lost, 0.01);
  expect(delayed, 0.05 * 0.99);
  expect(corrupt, 0.2 * 0.99);
}

// Gilbert: a share of TurnsBad / (TurnsBad + TurnsGood) is lost, in bursts of 1 / TurnsGood.
TEST_F(FaultInsertionTest, LossesComeInBursts) {
  constexpr int kDatagrams = 400'000;
  IpPlayoutFaults faults{};
  faults.TurnsBad = 0.01;
  faults.TurnsGood = 0.25;
  faults.LoseWhileBad = 1;
  Configure(faults);
  int lost = 0;
  int bursts = 0;
  std::uint32_t before = 0;
  for (int i = 0; i < kDatagrams; ++i) {
    const std::uint32_t did = Next();
    lost += did != 0;
    bursts += did != 0 && before == 0;
    before = did;
  }
  EXPECT_NEAR(static_cast<double>(lost) / kDatagrams, 0.01 / 0.26, 0.002);
  EXPECT_NEAR(static_cast<double>(lost) / bursts, 4, 0.2);
}

// By certain chances: bad, good, bad ...
TEST_F(FaultInsertionTest, AStreamTurnsBeforeItsDatagram) {
  IpPlayoutFaults faults{};
  faults.TurnsBad = faults.TurnsGood = faults.LoseWhileBad = 1;
  Configure(faults);
  for (const std::uint32_t lost : {1U, 0U, 1U, 0U}) {
    EXPECT_EQ(Next(), lost * IPPLAYOUT_DID_LOSE);
  }
}

TEST_F(FaultInsertionTest, FlipsSoManyBitsAndBack) {
  IpPlayoutFaults faults{};
  faults.Corrupt = 1;
  faults.CorruptBits = 31;
  Configure(faults);
  std::vector<std::uint8_t> payload(4, 0);
  insertion.Begin(0, 0ns, payload.size());
  insertion.Flip(payload);
  int ones = 0;
  for (const std::uint8_t byte : payload) {
    ones += __builtin_popcount(byte);
  }
  EXPECT_EQ(ones, 31);  // of 32: none twice
  insertion.Flip(payload);
  EXPECT_EQ(payload, std::vector<std::uint8_t>(4, 0));
}

}  // namespace
}  // namespace ipplayout
