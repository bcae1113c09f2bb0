#include "driver/pcap_driver.h"

#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "driver/burst_socket.h"
#include "platform/clock.h"
#include "platform/descriptor.h"
#include "tests/support/test_network.h"

namespace ipplayout {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using Frame = std::vector<std::uint8_t>;

constexpr std::size_t kHeader = sizeof(FrameHeader);
constexpr std::size_t kLargest = 1514;  // of an interface with an MTU of 1500

// An Ethernet frame with an experimental EtherType whose every byte depends on `number`.
Frame MakeFrame(std::size_t size, std::size_t number) {
  Frame frame{0x02, 0, 0, 0, 0, 0x02, 0x02, 0, 0, 0, 0, 0x01, 0x88, 0xB5};
  while (frame.size() < size) {
    frame.push_back(static_cast<std::uint8_t>(number * 31 + frame.size() * 7));
  }
  return frame;
}

std::vector<Frame> MakeFrames(std::size_t count) {
  std::vector<Frame> frames;
  for (std::size_t i = 0; i < count; ++i) {
    frames.push_back(MakeFrame(60 + i * 397 % (kLargest - 59), i));
  }
  return frames;
}

std::unique_ptr<SendQueue> QueueOf(const std::vector<Frame>& frames, microseconds gap) {
  auto queue = SendQueue::Allocate(frames.size() * (kHeader + 65536));
  microseconds time{0};
  for (const Frame& frame : frames) {
    const auto length = static_cast<std::uint32_t>(frame.size());
    queue->Append({static_cast<std::uint32_t>(time.count() / 1'000'000),
                   static_cast<std::uint32_t>(time.count() % 1'000'000), length, length},
                  frame.data());
    time += gap;
  }
  return queue;
}

void ExpectArrived(const std::vector<TappedFrame>& tapped, const std::vector<Frame>& expected) {
  ASSERT_EQ(tapped.size(), expected.size());
  for (std::size_t i = 0; i < tapped.size(); ++i) {
    ASSERT_EQ(tapped[i].bytes, expected[i]) << "frame " << i;
  }
}

class PcapDriverTest : public testing::Test {
 protected:
  std::unique_ptr<CaptureHandle> Open(const std::string& name = "rpcap://near0",
                                      OpenOptions options = {}) {
    const NetworkNamespace::Visit visit(network_.near);
    return PlatformDriver().Open(name, options);
  }

  platform::Descriptor OpenPacketSocket() {
    const NetworkNamespace::Visit visit(network_.near);
    platform::Descriptor descriptor(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    sockaddr_ll adapter{};
    adapter.sll_family = AF_PACKET;
    adapter.sll_ifindex = static_cast<int>(if_nametoindex("near0"));
    bind(descriptor.Get(), reinterpret_cast<const sockaddr*>(&adapter), sizeof adapter);
    const int on = 1;
    setsockopt(descriptor.Get(), SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on);
    return descriptor;
  }

  TestNetwork network_;
  FrameTap far_{network_.far, "far0"};
  platform::DeadlineWaiter waiter_;
};

TEST_F(PcapDriverTest, BatchArrivesInOrderWithEveryByteAndSpaced) {
  const auto handle = Open();
  ASSERT_NE(handle, nullptr);
  const auto frames = MakeFrames(30);
  const auto queue = QueueOf(frames, milliseconds(10));
  EXPECT_EQ(handle->TransmitQueue(*queue, true, waiter_), queue->Used());
  const auto arrived = far_.Collect(frames.size());
  ExpectArrived(arrived, frames);
  ASSERT_FALSE(arrived.empty());
  // 290 ms; how exactly depends on the machine, that they are spaced does not.
  EXPECT_GE(arrived.back().time - arrived.front().time, milliseconds(100));
}

TEST_F(PcapDriverTest, LongBurstArrivesWhole) {
  const auto handle = Open();
  ASSERT_NE(handle, nullptr);
  const auto frames = MakeFrames(1000);
  const auto queue = QueueOf(frames, microseconds(0));
  EXPECT_EQ(handle->TransmitQueue(*queue, true, waiter_), queue->Used());
  ExpectArrived(far_.Collect(frames.size()), frames);
}

TEST_F(PcapDriverTest, FramesAreNotTouched) {
  const auto handle = Open();
  ASSERT_NE(handle, nullptr);
  Frame tagged = MakeFrame(200, 1);
  const std::uint8_t tag[] = {0x81, 0x00, 0xE0, 0x05, 0x08, 0x00};  // IPv4 with wrong checksums
  std::copy(std::begin(tag), std::end(tag), tagged.begin() + 12);
  const Frame shortest = MakeFrame(15, 2);
  EXPECT_TRUE(handle->SendFrame(tagged));
  EXPECT_TRUE(handle->SendFrame(shortest));
  ExpectArrived(far_.Collect(2), {tagged, shortest});
}

TEST_F(PcapDriverTest, FrameAboveTheMtuEndsTheBatch) {
  const auto handle = Open();
  ASSERT_NE(handle, nullptr);
  auto frames = MakeFrames(10);
  frames[6] = MakeFrame(kLargest + 100, 6);
  const auto queue = QueueOf(frames, microseconds(0));
  frames.resize(6);
  std::size_t bytes = 0;
  for (const Frame& frame : frames) {
    bytes += kHeader + frame.size();
  }
  EXPECT_EQ(handle->TransmitQueue(*queue, true, waiter_), bytes);
  EXPECT_FALSE(handle->SendFrame(MakeFrame(kLargest + 100, 0)));
  EXPECT_TRUE(handle->SendFrame(MakeFrame(60, 99)));  // marks the end
  frames.push_back(MakeFrame(60, 99));
  ExpectArrived(far_.Collect(frames.size()), frames);
}

TEST_F(PcapDriverTest, AdapterThatIsTakenDownRefuses) {
  const auto handle = Open();
  ASSERT_NE(handle, nullptr);
  network_.near.Run("ip link set near0 down");
  const auto queue = QueueOf(MakeFrames(3), microseconds(0));
  EXPECT_EQ(handle->TransmitQueue(*queue, true, waiter_), 0u);
  EXPECT_FALSE(handle->SendFrame(MakeFrame(60, 0)));
}

// The device queue of an adapter without a carrier is full for as long as that lasts.
TEST_F(PcapDriverTest, UnpluggedAdapterRefusesInTheEnd) {
  const auto handle = Open();
  ASSERT_NE(handle, nullptr);
  network_.far.Run("ip link set far0 down");
  EXPECT_FALSE(handle->SendFrame(MakeFrame(60, 0)));
}

TEST_F(PcapDriverTest, FullDeviceQueueIsWaitedFor) {
  const platform::Descriptor near = OpenPacketSocket();
  ASSERT_TRUE(near.IsOpen());
  network_.far.Run("ip link set far0 down");
  BurstSocket impatient(near.Get(), milliseconds(1));
  const Frame frame = MakeFrame(60, 0);
  const std::vector<FrameBytes> burst(10, frame);
  EXPECT_EQ(impatient.SendBurst(burst), 0u);

  BurstSocket patient(near.Get(), std::chrono::hours(1));
  std::thread plug([this] { network_.far.Run("ip link set far0 up"); });
  EXPECT_EQ(patient.SendBurst(burst), burst.size());
  plug.join();
}

TEST_F(PcapDriverTest, OpeningSendsNothing) {
  const auto handle = Open();
  ASSERT_NE(handle, nullptr);
  const Frame first = MakeFrame(60, 1);
  EXPECT_TRUE(handle->SendFrame(first));
  ExpectArrived(far_.Collect(1), {first});
}

class PcapDriverReading : public PcapDriverTest, public testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(, PcapDriverReading, testing::Bool(), [](const auto& immediate) {
  return immediate.param ? "Immediate" : "InBlocks";
});

TEST_P(PcapDriverReading, GivesWhatPassesTheFilter) {
  OpenOptions options;
  options.immediate = GetParam();
  options.snapshot_length = 100;
  options.read_timeout = std::chrono::seconds(10);
  const auto handle = Open("rpcap://near0", options);
  ASSERT_NE(handle, nullptr);
  ASSERT_EQ(handle->SetFilter("ether proto 0x88B5", 0).stage, FilterResult::Stage::kDone);
  Frame other = MakeFrame(60, 1);
  other[13] = 0xB6;
  const Frame wanted = MakeFrame(300, 2);
  const auto before = std::chrono::system_clock::now().time_since_epoch();
  far_.Send(other);
  far_.Send(wanted);
  const auto frame = handle->NextFrame();
  const auto after = std::chrono::system_clock::now().time_since_epoch();
  ASSERT_TRUE(frame);
  EXPECT_EQ(Frame(frame->bytes.begin(), frame->bytes.end()),
            Frame(wanted.begin(), wanted.begin() + 100));
  const auto time = std::chrono::seconds(frame->seconds) + microseconds(frame->microseconds);
  EXPECT_GE(time, std::chrono::floor<microseconds>(before));
  EXPECT_LE(time, after);
}

TEST_P(PcapDriverReading, EndsWithoutTraffic) {
  OpenOptions options;
  options.immediate = GetParam();
  options.read_timeout = milliseconds(20);
  const auto handle = Open("rpcap://near0", options);
  ASSERT_NE(handle, nullptr);
  const auto start = platform::MonotonicNow();
  EXPECT_FALSE(handle->NextFrame());
  EXPECT_GE(platform::MonotonicNow() - start, milliseconds(20));
}

TEST_F(PcapDriverTest, FilterFailuresNameTheirStage) {
  const auto handle = Open();
  ASSERT_NE(handle, nullptr);
  const FilterResult result = handle->SetFilter("no such filter", 0);
  EXPECT_EQ(result.stage, FilterResult::Stage::kCompile);
  EXPECT_LT(result.code, 0);
  EXPECT_EQ(handle->SetFilter("", 0).stage, FilterResult::Stage::kDone);
}

TEST_F(PcapDriverTest, OnlyExistingAdaptersOpen) {
  network_.near.Run("ip tuntap add mode tun name tun0 && ip link set tun0 up");
  EXPECT_EQ(Open("rpcap://missing0"), nullptr);
  EXPECT_EQ(Open("near0"), nullptr);
  EXPECT_EQ(Open("rpcap://"), nullptr);
  EXPECT_EQ(Open("rpcap://near0")->DataLink(), CaptureHandle::kEthernetDataLink);
  EXPECT_EQ(Open("rpcap://lo")->DataLink(), CaptureHandle::kEthernetDataLink);
  EXPECT_NE(Open("rpcap://tun0")->DataLink(), CaptureHandle::kEthernetDataLink);
}

TEST_F(PcapDriverTest, MacQuery) {
  network_.near.Run("ip tuntap add mode tun name tun0");
  const NetworkNamespace::Visit visit(network_.near);
  using Result = CaptureDriver::MacResult;
  CaptureDriver& driver = PlatformDriver();
  MacAddress mac{9, 9, 9, 9, 9, 9};
  unsigned long error = 0;
  EXPECT_EQ(driver.QueryMac("missing0", mac, error), Result::kNotOpened);
  EXPECT_EQ(error, 19u);  // ENODEV
  EXPECT_EQ(driver.QueryMac("near0 with a name too long", mac, error), Result::kNotOpened);
  EXPECT_EQ(driver.QueryMac("tun0", mac, error), Result::kQueryFailed);
  EXPECT_EQ(mac, (MacAddress{9, 9, 9, 9, 9, 9}));
  EXPECT_EQ(driver.QueryMac("near0", mac, error), Result::kDone);
  EXPECT_EQ(mac, TestNetwork::kNearMac);
  EXPECT_EQ(driver.QueryMac("lo", mac, error), Result::kDone);
  EXPECT_EQ(mac, MacAddress{});
}

}  // namespace
}  // namespace ipplayout
