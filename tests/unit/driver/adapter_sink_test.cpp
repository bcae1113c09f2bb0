// SPDX-License-Identifier: MIT
#include "driver/adapter_sink.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>
#include <string_view>
#include <vector>

#include "platform/native_thread.h"
#include "tests/support/own_network.h"
#include "tests/support/stamped_sending.h"

namespace ipplayout {
namespace {

using Bytes = std::vector<std::uint8_t>;

// With a local experimental EtherType, and `content` behind the header.
Bytes Frame(std::uint32_t content, std::size_t size = 64) {
  Bytes frame(size, 0x02);
  frame[12] = 0x88;
  frame[13] = 0xB5;
  for (std::size_t i = 0; i < 4; ++i) {
    frame[14 + i] = static_cast<std::uint8_t>(content >> 8 * i);
  }
  return frame;
}

std::unique_ptr<AdapterSink> Open(bool stamps, bool prefer_xdp = false) {
  auto opened = AdapterSink::Open({"near", stamps, prefer_xdp});
  EXPECT_EQ(opened.error, 0) << opened.step;
  return std::move(opened.value);
}

TEST(AdapterSink, EveryTaggedFrameGetsAStampFromWithinItsCall) {
  for (const std::uint32_t every : {1U, 3U}) {
    InOwnNetwork([every] {
      const auto sink = Open(true);
      ASSERT_GE(sink->DepartureDescriptor(), 0);
      SendTagged(*sink, Frame(1), 10'000, every);
    });
  }
}

TEST(AdapterSink, AFrameThatIsTooLongIsItsOwnFaultAndLeavesTheTagsInStep) {
  InOwnNetwork([] {
    const auto sink = Open(true);
    const Bytes good = Frame(1);
    const Bytes too_long = Frame(2, 4000);
    StampedSending sending(*sink);
    for (std::uint32_t round = 0; round < 100; ++round) {
      const std::uint32_t tag = 10 * round;
      const auto result =
          sending.Send({{good, {}, tag + 1}, {too_long, {}, tag + 2}, {good, {}, tag + 3}});
      EXPECT_EQ(result.sent, 1U);
      EXPECT_EQ(result.error, EMSGSIZE);
      EXPECT_TRUE(result.of_frame);
      ASSERT_TRUE(sending.CatchUp());
      EXPECT_EQ(sending.Send({{good, {}, tag + 4}, {good, {}, tag + 5}}).sent, 2U);
      ASSERT_TRUE(sending.CatchUp());
    }
  });
}

TEST(AdapterSink, SendsFramesUnchangedAndInOrderEitherWay) {
  for (const bool prefer_xdp : {false, true}) {
    InOwnNetwork([prefer_xdp] {
      Arrivals far("far");
      ASSERT_TRUE(far.IsBound());
      const auto sink = Open(false, prefer_xdp);
      EXPECT_EQ(sink->Name(), std::string_view(prefer_xdp ? "AF_XDP" : "packet socket"));
      EXPECT_EQ(sink->DepartureDescriptor(), -1);
      std::vector<Bytes> frames;
      std::vector<OutgoingFrame> outgoing;
      for (std::uint32_t i = 0; i < FrameSink::kMostFrames; ++i) {
        frames.push_back(Frame(i, 64 + 20 * i));
      }
      for (const Bytes& frame : frames) {
        outgoing.push_back({frame, {}, 0});
      }
      const platform::DeadlineWaiter waiter;
      EXPECT_EQ(sink->Send(outgoing, waiter).sent, outgoing.size());
      for (const Bytes& frame : frames) {
        EXPECT_EQ(far.Next(), frame);
      }
      const Bytes too_long = Frame(2, 4000);
      outgoing[1].bytes = too_long;
      const auto result = sink->Send(outgoing, waiter);
      EXPECT_EQ(result.sent, 1U);
      EXPECT_EQ(result.error, EMSGSIZE);
      EXPECT_TRUE(result.of_frame);
    });
  }
}

TEST(AdapterSink, StampsAreThePacketSocketsWhateverIsPreferred) {
  InOwnNetwork([] { EXPECT_EQ(Open(true, true)->Name(), std::string_view("packet socket")); });
}

TEST(AdapterSink, AnAdapterThatIsDownIsNoFrameOfFaultsAndKeepsNoPollBusy) {
  InOwnNetwork([] {
    const auto sink = Open(true);
    ASSERT_TRUE(Shell("ip link set near down"));
    std::array<Departure, 1> none;
    EXPECT_EQ(sink->ReadDepartures(none), 0U);
    pollfd errors{sink->DepartureDescriptor(), 0, 0};
    EXPECT_EQ(::poll(&errors, 1, 0), 0);
    const Bytes frame = Frame(1);
    const OutgoingFrame outgoing{frame, {}, 1};
    const platform::DeadlineWaiter waiter;
    const auto result = sink->Send({&outgoing, 1}, waiter);
    EXPECT_EQ(result.sent, 0U);
    EXPECT_EQ(result.error, ENETDOWN);
    EXPECT_FALSE(result.of_frame);
    ASSERT_TRUE(Shell("ip link set near up"));
    EXPECT_EQ(sink->Send({&outgoing, 1}, waiter).sent, 1U);
  });
}

TEST(AdapterSink, TellsWhyItCannotBeOpened) {
  InOwnNetwork([] {
    ASSERT_TRUE(Shell("ip tuntap add dev plain mode tun"));
    const struct {
      const char* interface;
      int error;
      std::string_view step;
    } cases[] = {
        {"nowhere", ENODEV, "find the adapter"},
        {"plain", EPROTONOSUPPORT, "send Ethernet frames on the adapter"},
        {"near", EPERM, "open a packet socket"},
    };
    platform::GiveUpCapabilities();
    for (const auto& c : cases) {
      const auto opened = AdapterSink::Open({c.interface});
      EXPECT_EQ(opened.value, nullptr);
      EXPECT_EQ(opened.error, c.error) << c.interface;
      EXPECT_EQ(opened.step, c.step) << c.interface;
    }
  });
}

}  // namespace
}  // namespace ipplayout
