// SPDX-License-Identifier: MIT
#include "host/lineup/channel_feed.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/stream/open_input.h"
#include "tests/host/temporary_file.h"

namespace ipplay {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kPayload = 7 * 188;
constexpr std::uint32_t kFrame = kPayload + 54;
constexpr std::size_t kDatagrams = 2000;
constexpr auto kGap = 1ms;  // of a datagram at the rate of the plan

PlayPlan Plan(double ppm) {
  PlayPlan plan;
  plan.sizes.payload_bytes = kPayload;
  plan.sizes.frame_bytes = kFrame;
  plan.rates.frame = kFrame * 8 / std::chrono::duration<double>(kGap).count() * (1 + ppm / 1e6);
  plan.rounds.count = 1;
  return plan;
}

// The places in time of all datagrams; `change` is called when the first are written.
template <typename Change>
std::vector<std::int64_t> Play(double ppm, std::chrono::nanoseconds phase, Change change) {
  const TemporaryFile stream(std::vector<std::uint8_t>(kDatagrams * kPayload, 0x47));
  const TemporaryFile capture({});
  auto playout = ScheduledPlayout::Open();
  IpPlayoutSettings settings = ScheduledPlayout::Defaults();
  settings.To = IPPLAYOUT_TO_FILE;
  capture.path().copy(settings.Destination, sizeof settings.Destination - 1);
  settings.StartBytes = 0;
  settings.LedgerFrames = kDatagrams + 1;
  EXPECT_FALSE(playout->Configure(settings));
  StreamFacts facts;
  facts.format.packet_bytes = 188;
  auto input = OpenInput(stream.path(), {}, -1);
  ChannelFeed feed(std::make_unique<RoundReader>(std::move(*input), facts), Plan(ppm), ppm,
                   *playout, phase);
  EXPECT_EQ(feed.Fill(), ChannelFeed::Outcome::kFull);
  change(feed);
  EXPECT_FALSE(playout->Start());
  while (feed.Fill() == ChannelFeed::Outcome::kFull) {
    std::this_thread::yield();  // time is virtual, and the playout as fast as it can be
  }
  EXPECT_TRUE(playout->Wait());
  std::vector<IpPlayoutRecord> records(kDatagrams + 1);
  records.resize(playout->ReadLedger(records));
  std::vector<std::int64_t> due;
  for (const IpPlayoutRecord& record : records) {
    due.push_back(record.DueNs);
  }
  return due;
}

TEST(ChannelFeed, SpacesEvenlyFromItsPhaseOn) {
  const auto due = Play(1000, 300us, [](ChannelFeed&) {});
  ASSERT_EQ(due.size(), kDatagrams);
  for (const std::size_t index : {std::size_t{0}, std::size_t{1}, kDatagrams - 1}) {
    EXPECT_NEAR(static_cast<double>(due.at(index)),
                300e3 + static_cast<double>(index) * 1e6 / 1.001, 2);
  }
}

TEST(ChannelFeed, ChangesTheSpeedOfWhatFollows) {
  const auto due = Play(0, 0ns, [](ChannelFeed& feed) { feed.SetSpeed(2); });
  ASSERT_EQ(due.size(), kDatagrams);
  EXPECT_NEAR(static_cast<double>(due.at(101) - due.at(100)), 1e6, 2);
  EXPECT_NEAR(static_cast<double>(due.back() - due.at(kDatagrams - 2)), 0.5e6, 2);
  // Half a second was written ahead, with a mark for each 20 ms.
  EXPECT_NEAR(static_cast<double>(due.back()), 500e6 + 1500 * 0.5e6, 25e6);
}

}  // namespace
}  // namespace ipplay
