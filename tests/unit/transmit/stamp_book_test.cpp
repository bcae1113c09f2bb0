// SPDX-License-Identifier: MIT
#include "transmit/stamp_book.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "transmit/scheduled_stream.h"

namespace ipplayout {
namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

// Gives departures back as a test puts them in.
class StampingSink final : public FrameSink {
 public:
  explicit StampingSink(int descriptor = 3) : descriptor_(descriptor) {}

  std::vector<Departure> departures;

  Result Send(std::span<const OutgoingFrame> frames, const platform::DeadlineWaiter&) override {
    return {frames.size(), 0, false};
  }
  const char* Name() const override { return "stamping"; }
  std::uint64_t Retries() const override { return 0; }
  std::size_t ReadDepartures(std::span<Departure> out) override {
    const std::size_t count = std::min(out.size(), departures.size());
    std::copy_n(departures.begin(), count, out.begin());
    departures.erase(departures.begin(), departures.begin() + static_cast<std::ptrdiff_t>(count));
    return count;
  }
  int DepartureDescriptor() const override { return descriptor_; }

 private:
  const int descriptor_;
};

class Listener final : public StreamListener {
  void OnRoom() override {}
  void OnEnd(int) override {}
};

class StampBookTest : public testing::Test {
 protected:
  ScheduledStream& NewStream(FrameSink& to, bool wants_stamps = true) {
    StreamRules rules;
    rules.wants_stamps = wants_stamps;
    return *streams_.emplace_back(std::make_unique<ScheduledStream>(
        2, 2, ScheduledStream::LedgerSize{16, false}, rules, to, listener_));
  }

  StampingSink sink;
  StampBook book;

 private:
  Listener listener_;
  std::vector<std::unique_ptr<ScheduledStream>> streams_;
};

TEST_F(StampBookTest, PutsEachStampIntoTheRecordAndTheLedgerOfItsStream) {
  ScheduledStream& a = NewStream(sink);
  ScheduledStream& b = NewStream(sink);
  const auto of_a = book.TagFor(a, seconds(1));
  const auto of_b = book.TagFor(b, seconds(2));
  book.EnterRecord(of_a, a.ledger.Add({}, {}, true));
  book.EnterRecord(of_b, b.ledger.Add({}, {}, true));
  EXPECT_NE(of_a, 0U);
  EXPECT_NE(of_a, of_b);
  EXPECT_EQ(book.Outstanding(), 2U);
  sink.departures = {{of_b, seconds(2) + microseconds(20), false},
                     {of_a, seconds(1) + nanoseconds(10), false},
                     {of_a, seconds(9), false},       // told twice
                     {of_a + 77, seconds(9), true}};  // nobody's
  book.Read();
  EXPECT_EQ(book.Outstanding(), 0U);
  EXPECT_EQ(a.timing.Stamps().Count(), 1U);
  EXPECT_EQ(a.timing.Stamps().Maximum(), nanoseconds(10));
  EXPECT_EQ(b.timing.Stamps().Count(), 1U);
  EXPECT_EQ(b.timing.Stamps().Maximum(), microseconds(20));
  ASSERT_TRUE(a.ledger.Front() != nullptr && b.ledger.Front() != nullptr);
  EXPECT_EQ(a.ledger.Front()->StampNs, 1'000'000'010);
  EXPECT_EQ(b.ledger.Front()->StampNs, 2'000'020'000);
}

TEST_F(StampBookTest, AsksForNoneWhereNoneIsWantedOrGiven) {
  StampingSink blind(-1);
  EXPECT_EQ(book.TagFor(NewStream(sink, false), seconds(1)), 0U);
  EXPECT_EQ(book.TagFor(NewStream(blind), seconds(1)), 0U);
  EXPECT_EQ(book.Outstanding(), 0U);
}

TEST_F(StampBookTest, AsksForNoMoreThanCanBeReadInASecond) {
  for (const double rate : {0.0, 5'000.0, 20'000.0, 20'001.0, 100'000.0, 1e12}) {
    book.SampleFor(rate);
    ScheduledStream& stream = NewStream(sink);
    int tags = 0;
    constexpr int kFrames = 100'000;
    for (int i = 0; i < kFrames; ++i) {
      tags += book.TagFor(stream, seconds(1)) != 0 ? 1 : 0;
    }
    EXPECT_LE(tags * std::min(rate, 1e9) / kFrames, 20'000 + rate / kFrames) << rate;
    EXPECT_GE(tags, 1) << rate;
    if (rate <= 20'000) {
      EXPECT_EQ(tags, kFrames) << rate;
    }
    book.Forget(stream);
    EXPECT_EQ(book.Outstanding(), 0U);
  }
}

TEST_F(StampBookTest, StampsOfOneThatIsForgottenAreNobodysAndThoseOfOthersStillCome) {
  ScheduledStream& a = NewStream(sink);
  ScheduledStream& b = NewStream(sink);
  const auto of_a = book.TagFor(a, seconds(1));
  const auto of_b = book.TagFor(b, seconds(1));
  book.Forget(a);
  EXPECT_EQ(book.Outstanding(), 1U);
  sink.departures = {{of_a, seconds(1), false}, {of_b, seconds(1), false}};
  book.Read();
  EXPECT_EQ(a.timing.Stamps().Count(), 0U);
  EXPECT_EQ(b.timing.Stamps().Count(), 1U);
  book.Forget(b);
  sink.departures = {{of_b, seconds(1), false}};
  book.Read();
  EXPECT_EQ(sink.departures.size(), 1U);  // a sink that may be gone is not asked
}

}  // namespace
}  // namespace ipplayout
