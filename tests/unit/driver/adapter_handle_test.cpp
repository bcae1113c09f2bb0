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

std::unique_ptr<CaptureHandle> OpenLater(const char* name) {
  OpenOptions options;
  options.read_timeout = std::chrono::seconds(5);
  options.capture_later = true;
  return PcapDriver().Open(name, options);
}

TEST(AdapterHandle, CapturesFromTheFirstFilterOrReadOn) {
  std::thread([] {
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
    BringLoopbackUp();
    const auto sender = OpenLater("rpcap://lo");
    const auto receiver = OpenLater("rpcap://lo");
    ASSERT_TRUE(sender && receiver);
    std::vector<std::uint8_t> early(60, 0x11);
    std::vector<std::uint8_t> late(60, 0x22);
    early[12] = late[12] = 0x88;  // an EtherType that nobody answers
    EXPECT_EQ(receiver->SetFilter("", 0).stage, FilterResult::Stage::kDone);
    EXPECT_TRUE(sender->SendFrame(early));
    EXPECT_EQ(receiver->SetFilter("ether[20] = 0x22", 0).stage, FilterResult::Stage::kDone);
    EXPECT_TRUE(sender->SendFrame(late));
    const auto frame = receiver->NextFrame();
    ASSERT_TRUE(frame);
    EXPECT_TRUE(std::ranges::equal(frame->bytes, late));
    EXPECT_EQ(receiver->SetFilter("no such word", 0).stage, FilterResult::Stage::kCompile);
  }).join();
}

TEST(AdapterHandle, OpensNoInterfaceThatIsNotThere) {
  EXPECT_EQ(OpenLater("rpcap://nowhere"), nullptr);
  EXPECT_EQ(OpenLater("lo"), nullptr);
}

}  // namespace
}  // namespace ipplayout
