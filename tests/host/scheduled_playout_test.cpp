// SPDX-License-Identifier: MIT
#include "host/library/scheduled_playout.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "tests/host/temporary_file.h"

namespace ipplay {
namespace {

using namespace std::chrono_literals;

const std::vector<std::uint8_t> kPackets(7 * 188 * 20, 0x47);  // 20 datagrams
constexpr double kDatagramEachMillisecond = 1370 * 8e3 / 1e6;

IpPlayoutSettings ToFile(const std::string& path) {
  IpPlayoutSettings settings = ScheduledPlayout::Defaults();
  settings.To = IPPLAYOUT_TO_FILE;
  path.copy(settings.Destination, sizeof settings.Destination - 1);
  settings.StartBytes = 0;
  settings.LedgerFrames = 100;
  return settings;
}

std::vector<IpPlayoutRecord> Ledger(ScheduledPlayout& playout) {
  std::vector<IpPlayoutRecord> records(100);
  records.resize(playout.ReadLedger(records));
  return records;
}

TEST(ScheduledPlayout, PlaysByMarksBesideAnother) {
  const TemporaryFile file({});
  auto marked = ScheduledPlayout::Open();
  auto steady = ScheduledPlayout::Open();
  ASSERT_TRUE(marked && steady);
  IpPlayoutSettings settings = ToFile(file.path());
  ASSERT_FALSE(marked->Configure(settings));
  settings.BitRate = kDatagramEachMillisecond;
  ASSERT_FALSE(steady->Configure(settings));
  ASSERT_FALSE(marked->Mark(0, 0s));
  ASSERT_FALSE(marked->Mark(kPackets.size() / 2, 10ms));
  ASSERT_FALSE(marked->Mark(kPackets.size(), 50ms));
  const std::array<ScheduledPlayout*, 2> both{&*marked, &*steady};
  ASSERT_FALSE(ScheduledPlayout::Start(both));
  for (ScheduledPlayout* playout : both) {
    EXPECT_TRUE(playout->Write(kPackets));
    playout->End();
  }
  for (ScheduledPlayout* playout : both) {
    const auto state = playout->Wait(10s);
    ASSERT_TRUE(state) << state.Error().message;
    EXPECT_EQ(*state, ScheduledPlayout::State::kPlayed);
    EXPECT_EQ(playout->Statistics().DatagramsSent, 20U);
  }
  const auto records = Ledger(*marked);
  ASSERT_EQ(records.size(), 20U);
  EXPECT_EQ(records[5].DueNs, 5'000'000);
  EXPECT_EQ(records[15].DueNs, 30'000'000);
  EXPECT_EQ(Ledger(*steady).at(15).DueNs, 15'000'000);
  EXPECT_NE(marked->Seed(), steady->Seed());
}

TEST(ScheduledPlayout, EachOrderHitsDatagramsOfItsOwn) {
  const TemporaryFile file({});
  auto playout = ScheduledPlayout::Open();
  IpPlayoutSettings settings = ToFile(file.path());
  settings.BitRate = 10;
  ASSERT_FALSE(playout->Configure(settings));
  ASSERT_FALSE(playout->Damage(IPPLAYOUT_DID_LOSE, 3)) << "before the start, too";
  ASSERT_FALSE(playout->Start());
  ASSERT_FALSE(playout->Damage(IPPLAYOUT_DID_UDP_CHECKSUM, 2));
  EXPECT_TRUE(playout->Write(kPackets));
  playout->End();
  ASSERT_TRUE(playout->Wait(10s));
  const auto records = Ledger(*playout);
  const auto count = [&](std::uint32_t did) {
    return std::count_if(records.begin(), records.end(),
                         [&](const IpPlayoutRecord& record) { return record.Did == did; });
  };
  EXPECT_EQ(count(IPPLAYOUT_DID_LOSE), 3);
  EXPECT_EQ(count(IPPLAYOUT_DID_UDP_CHECKSUM), 2);
  EXPECT_EQ(playout->Timing().OnTime, 17U);
}

// 20 datagrams, a millisecond apart.
TEST(ScheduledPlayout, CarriesOrdersOutAtTheirTime) {
  const TemporaryFile file({});
  for (const bool closes_holes : {false, true}) {
    auto playout = ScheduledPlayout::Open();
    IpPlayoutSettings settings = ToFile(file.path());
    settings.BitRate = kDatagramEachMillisecond;
    settings.Params.ProtocolHeadersSettings.RTPHeaderSettings.RandomSequenceNumber = 0;
    settings.Faults.ClosesHoles = closes_holes ? 1 : 0;
    ASSERT_FALSE(playout->Configure(settings));
    ASSERT_FALSE(playout->Order({1, IPPLAYOUT_DID_DUPLICATE, 1, 0, 0, 4'000'000, 0}));
    ASSERT_FALSE(playout->Order({2, IPPLAYOUT_DID_LOSE, 2, 0, 0, 6'000'000, 0}));
    ASSERT_FALSE(playout->Order({3, IPPLAYOUT_DID_DELAY, 1, 3, 0, 10'000'000, 0}));
    ASSERT_FALSE(playout->Order({4, IPPLAYOUT_DID_LOSE, 0, 0, 0, 16'000'000, 2'000'000}));
    ASSERT_FALSE(playout->Order({5, IPPLAYOUT_DID_CORRUPT, 1, 9, 0, 60'000'000'000, 0}));
    ASSERT_FALSE(playout->Start());
    EXPECT_TRUE(playout->Write(kPackets));
    playout->End();
    ASSERT_TRUE(playout->Wait(10s));
    std::string wire;
    for (const IpPlayoutRecord& record : Ledger(*playout)) {
      wire += record.DepartureNs >= 0
                  ? fmt::format("{}@{} ", record.RtpSequence, record.DueNs / 1000000)
                  : "";
    }
    EXPECT_EQ(
        wire,
        closes_holes
            ? "0@0 1@1 2@2 3@3 4@4 4@4 5@5 8@6 9@7 11@9 12@10 13@11 10@12 14@12 15@13 18@16 19@17 "
            : "0@0 1@1 2@2 3@3 4@4 4@4 5@5 8@8 9@9 11@11 12@12 13@13 10@14 14@14 15@15 18@18 "
              "19@19 ");
    std::array<IpPlayoutDone, 8> done{};
    ASSERT_EQ(playout->ReadDone(done), 4U);
    EXPECT_EQ(done[1].Number, 2U);
    EXPECT_EQ(done[1].Count, 2U);
    EXPECT_EQ(done[1].FirstDueNs, 6'000'000);
    EXPECT_EQ(done[3].Count, 2U);
    EXPECT_EQ(playout->Faults().Duplicated, 1U);
    EXPECT_EQ(playout->Faults().Corrupted, 0U);
    EXPECT_EQ(playout->Faults().Waiting, 1U);
  }
}

TEST(ScheduledPlayout, SaysWhatWasRefusedAndHowItEnded) {
  auto playout = ScheduledPlayout::Open();
  EXPECT_EQ(playout->Timing().LatenessMaxNs, -1);
  IpPlayoutSettings settings = ToFile("/nonexistent/a.pcapng");
  settings.Params.ProtocolHeadersSettings.VID = 4096;
  const auto refused = playout->Configure(settings);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, ExitStatus::kUsage);
  EXPECT_NE(refused->message.find("VID is 4096"), std::string::npos) << refused->message;

  settings.Params.ProtocolHeadersSettings.VID = 0;
  settings.BitRate = 10;
  ASSERT_FALSE(playout->Configure(settings));
  const auto not_opened = playout->Start();
  ASSERT_TRUE(not_opened);
  EXPECT_NE(not_opened->message.find("/nonexistent/a.pcapng"), std::string::npos);

  const TemporaryFile file({});
  IpPlayoutSettings stopped = ToFile(file.path());
  stopped.BitRate = 10;
  ASSERT_FALSE(playout->Configure(stopped));
  ASSERT_FALSE(playout->Start());
  const auto running = playout->Wait(0s);
  ASSERT_TRUE(running);
  EXPECT_EQ(*running, ScheduledPlayout::State::kGoesOn);
  EXPECT_FALSE(playout->Stop());
  const auto ended = playout->Wait(10s);
  ASSERT_TRUE(ended);
  EXPECT_EQ(*ended, ScheduledPlayout::State::kStopped);
}

}  // namespace
}  // namespace ipplay
