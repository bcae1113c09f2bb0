// SPDX-License-Identifier: MIT
#include "control/playouts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "control/playout_rules.h"
#include "tests/support/blocked_call.h"
#include "tests/support/fake_frame_sink.h"

namespace ipplayout {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr std::size_t kPayload = 1316;

// "bad" cannot be opened and "none" finds no memory; anything else takes frames in virtual time.
// "slow" is not finished before the test lets it, "full" never whole.
class FakeSinks final : public SinkMaker {
 public:
  std::unique_ptr<FrameSink> Open(const IpPlayoutSettings& settings, std::uint32_t,
                                  Failure& failure) override {
    const std::string name = settings.Destination;
    if (name == "none") {
      throw std::bad_alloc();
    }
    if (name == "bad") {
      failure = {IPPLAYOUT_BAD_DESTINATION, "bad: cannot be opened"};
      return nullptr;
    }
    auto sink = std::make_unique<FakeFrameSink>();
    sink->is_virtual = true;
    sink->on_send = [this](std::span<const OutgoingFrame> frames) {
      if (keeps) {
        for (const OutgoingFrame& frame : frames) {
          kept.emplace_back(frame.bytes.begin(), frame.bytes.end());
        }
      }
      sent += frames.size();
      sent.notify_all();
    };
    sink->finish_error = name == "full" ? ENOSPC : 0;
    if (name == "slow") {
      sink->on_finish = [this] {
        finishing.set_value();
        finish.get_future().wait();
      };
    }
    return sink;
  }

  std::atomic<std::size_t> sent{0};
  // Of a single playout, once it has ended.
  bool keeps = false;
  std::vector<std::vector<std::uint8_t>> kept;
  std::promise<void> finishing;
  std::promise<void> finish;
};

class PlayoutsTest : public testing::Test {
 protected:
  static IpPlayoutSettings SettingsFor(const char* destination) {
    IpPlayoutSettings settings = DefaultSettings();
    settings.To = IPPLAYOUT_TO_FILE;
    std::strcpy(settings.Destination, destination);
    settings.BitRate = 10;
    settings.RingBytes = 1 << 16;
    settings.StartBytes = 0;
    return settings;
  }
  std::shared_ptr<ScheduledPlayout> Open(const IpPlayoutSettings& settings) {
    handles_.push_back(playouts.Open());
    auto playout = playouts.Find(handles_.back());
    EXPECT_EQ(playout->Configure(settings).sentence, "");
    return playout;
  }
  Playouts::Handle HandleOf(std::size_t number) const { return handles_[number]; }
  static Failure Write(ScheduledPlayout& playout, std::size_t bytes) {
    const std::vector<std::uint8_t> data(bytes, 0x47);
    return playout.Write(data.data(), data.size());
  }
  // What became of each frame of so many datagrams that are played to their end.
  std::vector<IpPlayoutRecord> Play(IpPlayoutSettings settings, std::size_t datagrams) {
    settings.RingBytes = 1 << 20;
    settings.LedgerFrames = 4096;
    auto playout = Open(settings);
    EXPECT_EQ(Write(*playout, datagrams * kPayload).code, IPPLAYOUT_DONE);
    playout->End();
    EXPECT_EQ(playouts.Start(std::vector{handles_.back()}, {}).sentence, "");
    auto end = OnAnotherThread([&] { return playout->Wait({}).code; });
    EXPECT_TRUE(Returns(end));
    std::vector<IpPlayoutRecord> records(settings.LedgerFrames);
    std::size_t taken = 0;
    playout->ReadLedger(records.data(), records.size(), taken);
    records.resize(taken);
    return records;
  }
  static bool IsReadable(platform::EventHandle event) {
    pollfd target{static_cast<int>(event), POLLIN, 0};
    return ::poll(&target, 1, 0) == 1;
  }

  FakeSinks sinks;
  Playouts playouts{sinks};

 private:
  std::vector<Playouts::Handle> handles_;
};

TEST_F(PlayoutsTest, ARefusedStartLeavesTheOthersAsTheyWere) {
  auto good = Open(SettingsFor("file"));
  for (const char* name : {"bad", "none"}) {
    Open(SettingsFor(name));
  }
  ASSERT_EQ(Write(*good, 3 * kPayload).code, IPPLAYOUT_DONE);
  auto writer = OnAnotherThread([&] { return Write(*good, 100 * kPayload).code; });
  ASSERT_TRUE(Blocks(writer));
  const Failure failure = playouts.Start(std::vector{HandleOf(0), HandleOf(1)}, {});
  EXPECT_EQ(failure.code, IPPLAYOUT_BAD_DESTINATION);
  EXPECT_EQ(failure.sentence, "playout 1 of 0 to 1: bad: cannot be opened");
  EXPECT_THROW(playouts.Start(std::vector{HandleOf(0), HandleOf(2)}, {}), std::bad_alloc);
  EXPECT_EQ(playouts.Start(std::vector{HandleOf(0), HandleOf(0)}, {}).sentence,
            "playout 1 of 0 to 1: the playout is listed twice");
  EXPECT_EQ(good->Wait(nanoseconds(0)).code, IPPLAYOUT_BAD_STATE);  // not started yet
  EXPECT_FALSE(IsReadable(good->EndEvent()));
  EXPECT_TRUE(Blocks(writer));
  ASSERT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).sentence, "");
  ASSERT_TRUE(Returns(writer));
  EXPECT_EQ(writer.get(), IPPLAYOUT_DONE);
  EXPECT_EQ(good->End().code, IPPLAYOUT_DONE);
  auto end = OnAnotherThread([&] { return good->Wait({}).code; });
  ASSERT_TRUE(Returns(end));
  EXPECT_EQ(end.get(), IPPLAYOUT_DONE);
  EXPECT_TRUE(IsReadable(good->EndEvent()));
  EXPECT_EQ(sinks.sent, 103U);
}

TEST_F(PlayoutsTest, ARingBeginsWhenItIsFullHoweverItIsWritten) {
  for (const std::size_t piece : {std::size_t{1}, kPayload, std::size_t{50'000}}) {
    IpPlayoutSettings settings = SettingsFor("file");
    settings.StartBytes = settings.RingBytes;
    auto playout = Open(settings);
    ASSERT_EQ(playout->Prepare().code, IPPLAYOUT_DONE);
    ScheduledStream* const stream = &playout->Prepared().Stream();
    ASSERT_TRUE(playout->Prepared().Transmitter().Add({&stream, 1}, {}));
    playout->Launched();
    auto writing = OnAnotherThread([&] {
      std::size_t written = 60'000;  // not quite full: each write lets others run
      for (Write(*playout, written); written < 70'000; written += piece) {
        Write(*playout, piece);
      }
    });
    EXPECT_TRUE(Returns(writing)) << piece;
    playout->Stop();
  }
}

TEST_F(PlayoutsTest, ACloseReleasesWhoeverBlocksAndNothingStartsBehindIt) {
  auto playout = Open(SettingsFor("file"));
  auto writer = OnAnotherThread([&] { return Write(*playout, 1 << 20).code; });
  ASSERT_TRUE(Blocks(writer));
  EXPECT_EQ(playouts.Close(HandleOf(0)).code, IPPLAYOUT_DONE);
  ASSERT_TRUE(Returns(writer));
  EXPECT_EQ(writer.get(), IPPLAYOUT_ENDED);
  // Calls that were under way.
  auto late = OnAnotherThread([&] { return Write(*playout, 1 << 20).code; });
  ASSERT_TRUE(Returns(late));
  EXPECT_NE(late.get(), IPPLAYOUT_DONE);
  EXPECT_EQ(playout->Prepare().code, IPPLAYOUT_BAD_PLAYOUT);
  EXPECT_EQ(playout->Configure(SettingsFor("file")).code, IPPLAYOUT_BAD_PLAYOUT);
  EXPECT_NE(playouts.Open(), HandleOf(0));  // which may still be asked for
  EXPECT_EQ(playouts.Close(HandleOf(0)).code, IPPLAYOUT_BAD_PLAYOUT);
}

TEST_F(PlayoutsTest, AFileThatTakesLongToFinishHoldsUpNoOther) {
  auto slow = Open(SettingsFor("slow"));
  auto other = Open(SettingsFor("other"));
  ASSERT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).sentence, "");
  auto stop = OnAnotherThread([&] { return slow->Stop().code; });
  auto finishing = sinks.finishing.get_future();
  ASSERT_TRUE(Returns(finishing));
  auto beside = OnAnotherThread([&] {
    const int code = playouts.Start(std::vector{HandleOf(1)}, {}).code;
    other->Stop();
    return code;
  });
  EXPECT_TRUE(Returns(beside));
  EXPECT_TRUE(Blocks(stop));
  // The same file again, once it is finished.
  Open(SettingsFor("slow"));
  auto again = OnAnotherThread([&] { return playouts.Start(std::vector{HandleOf(2)}, {}).code; });
  EXPECT_TRUE(Blocks(again));
  sinks.finish.set_value();
  EXPECT_TRUE(Returns(stop));
  EXPECT_TRUE(Returns(again));
  EXPECT_EQ(again.get(), IPPLAYOUT_DONE);
  sinks.finishing = {};
  sinks.finish = {};
  sinks.finish.set_value();
}

TEST_F(PlayoutsTest, WhoEndsARunHearsThatItsFileIsNotWhole) {
  auto playout = Open(SettingsFor("full"));
  const std::function<Failure()> kEnds[] = {[&] { return playout->Stop(); },
                                            [&] { return playouts.Close(HandleOf(0)); }};
  for (const auto& end : kEnds) {
    ASSERT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).sentence, "");
    const Failure failure = end();
    EXPECT_EQ(failure.code, IPPLAYOUT_BAD_DESTINATION);
    EXPECT_EQ(failure.sentence, "full could not be written whole: No space left on device");
  }
}

// A waiter that has no processor in time may begin in the next run: it is enough to see one that
// did not.
TEST_F(PlayoutsTest, AWaitIsForTheRunThatItBeganIn) {
  auto playout = Open(SettingsFor("file"));
  bool has_ended_in_time = false;
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).sentence, "");
    auto waiter = OnAnotherThread([&] { return playout->Wait({}).code; });
    if (!has_ended_in_time) {
      ASSERT_TRUE(Blocks(waiter));
    }
    playout->Stop();
    ASSERT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).sentence, "");
    EXPECT_FALSE(IsReadable(playout->EndEvent()));
    has_ended_in_time = has_ended_in_time || !Blocks(waiter);
    playout->Stop();
    EXPECT_TRUE(IsReadable(playout->EndEvent()));
    ASSERT_TRUE(Returns(waiter));
    EXPECT_EQ(waiter.get(), IPPLAYOUT_ENDED);
  }
  EXPECT_TRUE(has_ended_in_time);
}

TEST_F(PlayoutsTest, WhatComesBehindTheEndIsRefused) {
  auto playout = Open(SettingsFor("file"));
  std::size_t taken = 1;
  const std::uint8_t byte = 0x47;
  ASSERT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).sentence, "");
  EXPECT_EQ(playout->Pause(false).code, IPPLAYOUT_DONE);
  EXPECT_EQ(Write(*playout, kPayload).code, IPPLAYOUT_DONE);
  playout->End();
  EXPECT_NE(playout->TryWrite(&byte, 1, taken).code, IPPLAYOUT_DONE);
  EXPECT_EQ(taken, 0U);
  ASSERT_EQ(playout->Wait({}).code, IPPLAYOUT_DONE);
  EXPECT_EQ(Write(*playout, 1).code, IPPLAYOUT_ENDED);
  EXPECT_EQ(playout->Pause(true).code, IPPLAYOUT_BAD_STATE);
  EXPECT_EQ(playout->Order({0, IPPLAYOUT_DID_LOSE, 1, 0, 0, 0, 0}).code, IPPLAYOUT_ENDED);
  playout->Stop();
  EXPECT_EQ(playout->Wait({}).code, IPPLAYOUT_DONE);  // it had ended by itself
  EXPECT_EQ(Write(*playout, 1).code, IPPLAYOUT_DONE);
  EXPECT_EQ(sinks.sent, 1U);
}

TEST_F(PlayoutsTest, NothingIsBuiltBeforeThereIsEnough) {
  IpPlayoutSettings settings = SettingsFor("file");
  settings.StartBytes = 4 * kPayload;
  auto playout = Open(settings);
  ASSERT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).sentence, "");
  auto first = OnAnotherThread([&] { sinks.sent.wait(0); });
  ASSERT_EQ(Write(*playout, 4 * kPayload - 1).code, IPPLAYOUT_DONE);
  EXPECT_TRUE(Blocks(first));
  ASSERT_EQ(Write(*playout, 1).code, IPPLAYOUT_DONE);
  EXPECT_TRUE(Returns(first));
}

// Frames of 10,960 bits.
TEST_F(PlayoutsTest, AStreamHasTheRoomAndTheRulesOfItsOrder) {
  struct Row {
    std::function<void(IpPlayoutSettings&)> change;
    double frames_per_second;
    std::size_t room;  // at least, and less than twice that
  };
  const Row kRows[] = {
      {[](auto&) {}, 912.4, 46},
      {[](auto& s) { s.Params.ReplicationCount = 9; }, 9124, 456},
      // Two bursts of 500: one is built while the other one leaves.
      {[](auto& s) {
         s.Parametric = {};
         s.Parametric.BurstMode = IPPLAYOUT_ON;
         s.Parametric.BurstValueType = IPPLAYOUT_BURST_BY_SIZE;
         s.Parametric.BurstSize = 500;
       },
       912.4, 1000},
  };
  for (const Row& row : kRows) {
    for (const std::uint32_t precision : {IPPLAYOUT_PRECISE, IPPLAYOUT_ECONOMICAL}) {
      IpPlayoutSettings settings = SettingsFor("file");
      settings.Precision = precision;
      row.change(settings);
      auto playout = Open(settings);
      ASSERT_EQ(playout->Prepare().sentence, "");
      const ScheduledStream& stream = playout->Prepared().Stream();
      EXPECT_EQ(stream.rules.is_precise, precision == IPPLAYOUT_PRECISE);
      EXPECT_NEAR(stream.rules.frames_per_second, row.frames_per_second, 1);
      EXPECT_GE(stream.ring.Capacity(), row.room);
      EXPECT_LT(stream.ring.Capacity(), 2 * row.room);
      playout->Abandon();
    }
  }
}

// Values below 32 ns are kept exactly. Those of the ranks 500, 990, 999 and 1,000 differ.
TEST_F(PlayoutsTest, EachFieldOfTheTimingIsItsOwn) {
  IpPlayoutSettings settings = SettingsFor("file");
  settings.LedgerFrames = 1;
  auto playout = Open(settings);
  ASSERT_EQ(playout->Prepare().sentence, "");
  ScheduledStream& stream = playout->Prepared().Stream();
  ScheduledStream* const added = &stream;
  TimingRecord& timing = stream.timing;
  for (int i = 1; i <= 1000; ++i) {
    const int behind = i <= 400 ? 1 : i <= 980 ? 3 : i <= 995 ? 9 : i <= 999 ? 14 : 20;
    timing.Left(nanoseconds(behind), nanoseconds(9));
    timing.Stamped(nanoseconds(behind + 8));
  }
  const auto repeat = [](int times, const std::function<void()>& what) {
    for (int i = 0; i < times; ++i) {
      what();
    }
  };
  repeat(2, [&] { timing.LeftOut(); });
  repeat(4, [&] { timing.NotSent(); });
  repeat(6, [&] { timing.WasDry(nanoseconds(100)); });
  timing.Discarded(7);
  timing.Retried(8);
  timing.Shifted(nanoseconds(30));
  for (const int departure : {40, 85, 90}) {
    timing.Departed(nanoseconds(departure));
  }
  repeat(11, [&] { stream.ledger.Add({}, {}, false); });
  ASSERT_TRUE(playout->Prepared().Transmitter().Add({&added, 1}, {}));
  playout->Launched();
  IpPlayoutTiming t;
  ASSERT_EQ(playout->GetTiming(t).code, IPPLAYOUT_DONE);
  const std::uint64_t counts[] = {t.OnTime,    t.Late,    t.LeftOut, t.NotSent,
                                  t.Discarded, t.Retries, t.Stamps,  t.LedgerLeftOut};
  EXPECT_THAT(counts, testing::ElementsAre(995, 5, 2, 4, 7, 8, 1000, 10));
  const std::int64_t times[] = {
      t.LatenessP50Ns,   t.LatenessP99Ns, t.LatenessP999Ns, t.LatenessMaxNs, t.FirstDepartureNs,
      t.LastDepartureNs, t.LongestGapNs,  t.ShiftNs,        t.DryNs,         t.StampP50Ns,
      t.StampP99Ns,      t.StampP999Ns,   t.StampMaxNs};
  EXPECT_THAT(times, testing::ElementsAre(3, 9, 14, 20, 40, 90, 45, 30, 600, 11, 17, 22, 28));
  EXPECT_EQ(t.DryTimes, 6U);
  std::uint64_t frames = 0;
  std::int64_t sum = 0;
  ASSERT_EQ(playout->GetLateness(9, frames, sum).code, IPPLAYOUT_DONE);
  EXPECT_EQ(frames, 995U);
  EXPECT_EQ(sum, 400 * 1 + 580 * 3 + 15 * 9);
  playout->Stop();
}

// Bursts of 10 frames, 10,960 us apart: 12 ms hold 10.9. Every second one is late by 30 ms, and
// what follows it waits for it. The receiver's clock goes on evenly.
TEST_F(PlayoutsTest, JitterMovesBurstsAndNotTheClock) {
  constexpr std::size_t kRtpTime = 42 + 4;
  IpPlayoutSettings settings = SettingsFor("file");
  settings.FirstRtpTimestamp = 0xFFFFFF00;
  settings.Parametric.BurstMode = IPPLAYOUT_ON;
  settings.Parametric.BurstValueType = IPPLAYOUT_BURST_BY_PERIOD;
  settings.Parametric.BurstPeriod = 12;
  settings.Parametric.JitterEnabled = IPPLAYOUT_ON;
  settings.Parametric.JitterDistributionType = IPPLAYOUT_JITTER_SQUARE;
  settings.Parametric.JitterPeriod = 30'000;
  sinks.keeps = true;
  const auto records = Play(settings, 60);
  ASSERT_EQ(records.size(), 60U);
  ASSERT_EQ(sinks.kept.size(), 60U);
  const double kBurstsDue[] = {30'000, 30'000, 51'920, 51'920, 73'840, 73'840};
  for (std::size_t i = 0; i < records.size(); ++i) {
    EXPECT_NEAR(static_cast<double>(records[i].DueNs) / 1e3, kBurstsDue[i / 10], 0.01) << i;
    std::uint32_t time = 0;
    for (std::size_t at = kRtpTime; at < kRtpTime + 4; ++at) {
      time = time << 8 | sinks.kept[i][at];
    }
    EXPECT_NEAR(time - 0xFFFFFF00, static_cast<double>(i) * 98.64, 1) << i;
  }
}

TEST_F(PlayoutsTest, ADuplicateIsAsDamagedAsTheFirst) {
  IpPlayoutSettings settings = SettingsFor("file");
  settings.Faults.UdpChecksum = 1;
  settings.Faults.Duplicate = 1;
  settings.Params.ReplicationCount = 1;
  const auto records = Play(settings, 3);
  ASSERT_EQ(records.size(), 12U);
  for (std::size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].Datagram, i / 4);
    EXPECT_EQ(records[i].Copy, i / 2 % 2);
    EXPECT_EQ(records[i].Did,
              IPPLAYOUT_DID_UDP_CHECKSUM | (i % 2 == 1 ? IPPLAYOUT_DID_DUPLICATE : 0));
  }
}

// The first of four is held behind the second; the third goes behind it.
TEST_F(PlayoutsTest, AHeldFrameTakesNothingFromTheOneItLeavesWith) {
  IpPlayoutSettings settings = SettingsFor("file");
  settings.Errors.ErrInsertionEnable = settings.Errors.SequenceErrorEnabled = 1;
  settings.Errors.NumSequenceError = 1;
  settings.Errors.SequenceErrorRange = 10;
  settings.Errors.SequenceErrorDistance = 1;
  settings.Faults.Corrupt = 1;
  settings.Faults.ClosesHoles = 1;  // of what is lost, and nothing is
  std::vector<std::uint32_t> did;
  const auto records = Play(settings, 4);
  for (const IpPlayoutRecord& record : records) {
    did.push_back(record.Did);
  }
  EXPECT_EQ(records.back().DueNs, 3 * 1'096'000);
  constexpr std::uint32_t kCorrupt = IPPLAYOUT_DID_CORRUPT;
  EXPECT_THAT(did, testing::ElementsAre(kCorrupt | IPPLAYOUT_DID_DELAY, kCorrupt,
                                        IPPLAYOUT_DID_SEND_HELD, kCorrupt, kCorrupt));
}

// By RFC 3550, 6.4.1: the first gap differs by 1,096 us from none, the second one not at all.
TEST_F(PlayoutsTest, TheStatisticsHaveTheJitterOfTheSchedule) {
  Play(SettingsFor("file"), 3);
  PlayoutStatistics statistics;
  playouts.Find(HandleOf(0))->GetStatistics(statistics);
  EXPECT_NEAR(statistics.Jitter, 1096e-6 / 16 * 15 / 16, 1e-9);
}

// One in each ten; the first of them where they are not random.
TEST_F(PlayoutsTest, DuplicatesAreWhereTheyAreOrdered) {
  for (const std::uint32_t randomized : {0U, 1U, 2U}) {
    IpPlayoutSettings settings = SettingsFor("file");
    settings.Seed = 7;
    settings.Errors.RandomizeErrors = randomized;
    settings.Faults.DuplicateCount = 1;
    settings.Faults.DuplicateRange = 10;
    settings.Faults.CorruptRange = 3;
    std::vector<std::uint64_t> ranges;
    bool all_first = true;
    for (const IpPlayoutRecord& record : Play(settings, 200)) {
      if ((record.Did & IPPLAYOUT_DID_DUPLICATE) != 0) {
        ranges.push_back(record.Datagram / 10);
        all_first = all_first && record.Datagram % 10 == 0;
      }
    }
    ASSERT_EQ(ranges.size(), 20U);
    EXPECT_EQ(playouts.Find(HandleOf(randomized))->Seed(), settings.Seed);
    for (std::size_t i = 0; i < ranges.size(); ++i) {
      EXPECT_EQ(ranges[i], i);
    }
    EXPECT_EQ(all_first, randomized == 0);
  }
}

// At any point of what the threads of the library do: a lost request hangs.
TEST_F(PlayoutsTest, StopsAtAnyMoment) {
  const auto play = [&](std::size_t number, ScheduledPlayout& playout) {
    for (int i = 0; i < 300; ++i) {
      EXPECT_EQ(playouts.Start(std::vector{HandleOf(number)}, {}).code, IPPLAYOUT_DONE);
      Write(playout, kPayload * static_cast<std::size_t>(i % 4));
      playout.End();
      if (i % 3 == 0) {
        playout.Wait({});
      }
      playout.Stop();
    }
  };
  auto one = Open(SettingsFor("one"));
  auto other = Open(SettingsFor("one"));
  auto beside = OnAnotherThread([&] { play(1, *other); });
  auto here = OnAnotherThread([&] { play(0, *one); });
  EXPECT_TRUE(Returns(here));
  EXPECT_TRUE(Returns(beside));
}

// 1,096 us apart at first, by hand: 1,370 bytes at 10 Mb/s.
TEST_F(PlayoutsTest, ChangesHoldFromTheirTimesOn) {
  constexpr std::size_t kCount = 400;
  IpPlayoutSettings settings = SettingsFor("file");
  settings.RingBytes = 1 << 20;
  settings.LedgerFrames = kCount;
  auto playout = Open(settings);
  ASSERT_EQ(Write(*playout, kCount * kPayload).code, IPPLAYOUT_DONE);
  playout->End();
  IpPlayoutSettings changed = settings;
  changed.Errors.ErrInsertionEnable = IPPLAYOUT_ON;
  changed.Errors.PacketLossEnabled = IPPLAYOUT_ON;
  changed.Errors.NumPacketLoss = 1;
  changed.Errors.PacketLossRange = 10;
  changed.Parametric.JitterEnabled = IPPLAYOUT_ON;
  changed.Parametric.JitterDistributionType = IPPLAYOUT_JITTER_SQUARE;
  changed.Parametric.JitterPeriod = 400;
  changed.Parametric.BurstMode = IPPLAYOUT_ON;  // bursts stay what they were
  EXPECT_EQ(playout->Change(settings, 1, 250'000'000).code, IPPLAYOUT_DONE);
  EXPECT_EQ(playout->Change(settings, 2, 100'000'000).code, IPPLAYOUT_DONE);
  // Replaced before the next datagram is due.
  EXPECT_EQ(playout->Change(changed, 7, 99'900'000).code, IPPLAYOUT_DONE);
  EXPECT_EQ(playout->Change(changed, 0.5, 150'000'000).code, IPPLAYOUT_DONE);
  ASSERT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).sentence, "");
  auto end = OnAnotherThread([&] { return playout->Wait({}).code; });
  ASSERT_TRUE(Returns(end));
  std::vector<IpPlayoutRecord> records(kCount);
  std::size_t taken = 0;
  playout->ReadLedger(records.data(), kCount, taken);
  ASSERT_EQ(taken, kCount);
  std::int64_t place = 0;
  for (const IpPlayoutRecord& record : records) {
    const bool is_changed = place >= 150'000'000 && place < 250'000'000;
    const bool is_even = record.Datagram % 2 == 0;
    const std::int64_t jitter = is_changed ? (is_even ? 200'000 : -200'000) : 0;
    EXPECT_LE(std::abs(record.DueNs - place - jitter), 1) << record.Datagram;
    EXPECT_EQ(record.Did, is_changed && record.Datagram % 10 == 0 ? IPPLAYOUT_DID_LOSE : 0);
    place += is_changed                                    ? 2'192'000
             : place >= 100'000'000 && place < 150'000'000 ? 548'000
                                                           : 1'096'000;
  }
}

TEST_F(PlayoutsTest, ChangesAreRefusedByNameAndRange) {
  IpPlayoutSettings settings = SettingsFor("file");
  auto playout = Open(settings);
  EXPECT_EQ(playout->Change(settings, 0, 0).sentence, "speed is 0; it can be 0.001 to 1000");
  EXPECT_EQ(playout->Change(settings, 1000.1, 0).code, IPPLAYOUT_BAD_VALUE);
  for (int i = 0; i < 256; ++i) {
    EXPECT_EQ(playout->Change(settings, i % 2 == 0 ? 0.001 : 1000, 0).sentence, "");
  }
  EXPECT_EQ(playout->Change(settings, 1, 0).code, IPPLAYOUT_NO_RESOURCES);
  settings.Faults.Lose = 2;
  EXPECT_EQ(playout->Change(settings, 1, 0).sentence, "Lose is 2; it can be 0 to 1");
  settings = SettingsFor("file");
  settings.Size = 1;
  EXPECT_EQ(playout->Change(settings, 1, 0).code, IPPLAYOUT_BAD_VALUE);
  EXPECT_EQ(playouts.Find(playouts.Open())->Change(settings, 1, 0).code, IPPLAYOUT_BAD_STATE);
}

TEST_F(PlayoutsTest, WhatFollowsASingleMarkWaitsForTheEnd) {
  IpPlayoutSettings settings = SettingsFor("file");
  settings.BitRate = 0;
  auto playout = Open(settings);
  EXPECT_EQ(playout->Mark(0, 5).code, IPPLAYOUT_DONE);
  ASSERT_EQ(Write(*playout, 3 * kPayload).code, IPPLAYOUT_DONE);
  ASSERT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).sentence, "");
  auto end = OnAnotherThread([&] { return playout->Wait({}).code; });
  EXPECT_TRUE(Blocks(end));
  playout->End();
  ASSERT_TRUE(Returns(end));
  EXPECT_EQ(sinks.sent, 3U);
}

TEST_F(PlayoutsTest, TheLedgersPathHoldsUntilTheNextSettings) {
  const char* const kPath = "/nowhere/ledger";
  IpPlayoutSettings settings = SettingsFor("file");
  auto playout = Open(settings);
  EXPECT_EQ(playout->WriteLedger(kPath).code, IPPLAYOUT_BAD_STATE);  // none is kept
  settings.LedgerFrames = 1;
  const std::function<void()> kForgets[] = {
      [&] { EXPECT_EQ(playout->WriteLedger(nullptr).sentence, ""); },
      [&] { EXPECT_EQ(playout->Configure(settings).sentence, ""); }};
  ASSERT_EQ(playout->Configure(settings).sentence, "");
  for (const auto& forget : kForgets) {
    EXPECT_EQ(playout->WriteLedger(kPath).sentence, "");
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).code, IPPLAYOUT_BAD_DESTINATION);
    }
    forget();
    EXPECT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).sentence, "");
    EXPECT_EQ(playout->WriteLedger(kPath).code, IPPLAYOUT_BAD_STATE);  // it runs
    playout->Stop();
  }
}

TEST_F(PlayoutsTest, WhatTheLedgersFileDoesNotTakeIsCounted) {
  constexpr std::size_t kDatagrams = 200;
  IpPlayoutSettings settings = SettingsFor("file");
  settings.LedgerFrames = kDatagrams;
  settings.RingBytes = 1 << 20;
  auto playout = Open(settings);
  ASSERT_EQ(playout->WriteLedger("/dev/full").sentence, "");
  ASSERT_EQ(Write(*playout, kDatagrams * kPayload).sentence, "");
  playout->End();
  ASSERT_EQ(playouts.Start(std::vector{HandleOf(0)}, {}).sentence, "");
  ASSERT_EQ(playout->Wait({}).sentence, "");
  EXPECT_EQ(playout->Stop().code, IPPLAYOUT_BAD_DESTINATION);
  IpPlayoutTiming timing;
  playout->GetTiming(timing);
  EXPECT_EQ(timing.OnTime, kDatagrams);
  EXPECT_GT(timing.LedgerLeftOut, 0U);
}

TEST_F(PlayoutsTest, ATryWritesWhatThereIsRoomFor) {
  IpPlayoutSettings settings = SettingsFor("file");
  settings.BitRate = 0;
  auto playout = Open(settings);
  const std::vector<std::uint8_t> data(2 * settings.RingBytes);
  std::size_t taken = 0;
  EXPECT_EQ(playout->TryWrite(data.data(), data.size(), taken).code, IPPLAYOUT_DONE);
  EXPECT_EQ(taken, settings.RingBytes);
  EXPECT_EQ(playout->TryWrite(data.data(), data.size(), taken).code, IPPLAYOUT_DONE);
  EXPECT_EQ(taken, 0U);
  EXPECT_EQ(playout->Mark(settings.RingBytes - 1, 5).code, IPPLAYOUT_BAD_VALUE);
  EXPECT_EQ(playout->Mark(settings.RingBytes, 5).code, IPPLAYOUT_DONE);
}

TEST_F(PlayoutsTest, MarksAreRefusedByNameAndRange) {
  IpPlayoutSettings settings = SettingsFor("file");
  EXPECT_EQ(Open(settings)->Mark(0, 0).code, IPPLAYOUT_BAD_STATE);
  settings.BitRate = 0;
  auto playout = Open(settings);
  EXPECT_EQ(playouts.Start(std::vector{HandleOf(1)}, {}).code, IPPLAYOUT_BAD_STATE);
  EXPECT_EQ(playout->Mark(0, -1).sentence, "time_ns is -1; it can be 0 to 1152921504606846976");
  EXPECT_EQ(playout->Mark(0, INT64_MAX).code, IPPLAYOUT_BAD_VALUE);
  EXPECT_EQ(playout->Mark(0, 5).code, IPPLAYOUT_DONE);
  EXPECT_EQ(playout->Mark(0, 6).code, IPPLAYOUT_BAD_VALUE);
  EXPECT_EQ(playout->Mark(1, 4).code, IPPLAYOUT_BAD_VALUE);
  EXPECT_EQ(Write(*playout, 100).code, IPPLAYOUT_DONE);
  EXPECT_EQ(playout->Mark(99, 6).code, IPPLAYOUT_BAD_VALUE);
  EXPECT_EQ(playout->Mark(100, 6).code, IPPLAYOUT_DONE);
  EXPECT_EQ(playout->Mark(101, (INT64_C(1) << 60) + 1).code, IPPLAYOUT_BAD_VALUE);
  EXPECT_EQ(playout->Mark(101, INT64_C(1) << 60).code, IPPLAYOUT_DONE);
}

}  // namespace
}  // namespace ipplayout
