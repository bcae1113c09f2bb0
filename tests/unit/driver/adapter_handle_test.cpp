// SPDX-License-Identifier: MIT
#include "driver/adapter_handle.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include "driver/pcap_driver.h"

namespace ipplayout {
namespace {

// Loopback of a namespace of its own: what one handle sends, another one captures.
void BringLoopbackUp() {
  const platform::Descriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  ASSERT_EQ(ioctl(socket.Get(), SIOCSIFFLAGS, &request), 0);
}

constexpr std::chrono::milliseconds kNoFrame{50};

std::unique_ptr<CaptureHandle> OpenAdapter(const char* name, bool capture_later) {
  OpenOptions options;
  options.read_timeout = kNoFrame;
  options.immediate = true;
  options.capture_later = capture_later;
  return PcapDriver().Open(name, options);
}

std::vector<std::uint8_t> Frame(std::uint8_t content) {
  std::vector<std::uint8_t> frame(60, content);
  frame[12] = 0x88;  // with the next byte an EtherType that nobody answers
  return frame;
}

TEST(AdapterHandle, CapturesFromTheOpeningOrFromTheFirstReadOn) {
  std::thread([] {
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
    BringLoopbackUp();
    const auto sender = OpenAdapter("rpcap://lo", true);
    ASSERT_TRUE(sender);
    for (const bool later : {true, false}) {
      const auto receiver = OpenAdapter("rpcap://lo", later);
      ASSERT_TRUE(receiver);
      EXPECT_EQ(receiver->SetFilter("", 0).stage, FilterResult::Stage::kDone);
      EXPECT_TRUE(sender->SendFrame(Frame(0x11)));
      const auto early = receiver->NextFrame();
      ASSERT_EQ(early.has_value(), !later);
      EXPECT_TRUE(later || std::ranges::equal(early->bytes, Frame(0x11)));
      EXPECT_EQ(receiver->SetFilter("ether[20] = 0x33", 0).stage, FilterResult::Stage::kDone);
      EXPECT_TRUE(sender->SendFrame(Frame(0x22)));
      EXPECT_TRUE(sender->SendFrame(Frame(0x33)));
      const auto frame = receiver->NextFrame();
      ASSERT_TRUE(frame);
      EXPECT_TRUE(std::ranges::equal(frame->bytes, Frame(0x33)));
      EXPECT_EQ(receiver->SetFilter("no such word", 0).stage, FilterResult::Stage::kCompile);
    }
  }).join();
}

TEST(AdapterHandle, OpensNoInterfaceThatIsNotThere) {
  for (const bool later : {true, false}) {
    EXPECT_EQ(OpenAdapter("rpcap://nowhere", later), nullptr);
    EXPECT_EQ(OpenAdapter("lo", later), nullptr);
  }
}

}  // namespace
}  // namespace ipplayout
