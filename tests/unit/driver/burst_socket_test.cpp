// SPDX-License-Identifier: MIT
// The socket is one end of a local datagram pair: like a packet socket it keeps frames apart, takes
// a few and then has to be waited for.
#include "driver/burst_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>
#include <vector>

#include "platform/descriptor.h"

namespace ipplayout {
namespace {

using Frame = std::vector<std::uint8_t>;

class BurstSocketTest : public testing::Test {
 protected:
  BurstSocketTest() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    near_ = platform::Descriptor(ends[0]);
    far_ = platform::Descriptor(ends[1]);
    for (std::size_t i = 0; i < BurstSocket::kMostFrames; ++i) {
      frames_.emplace_back(60'000 + i, static_cast<std::uint8_t>(i));  // many times what it holds
    }
  }

  std::size_t Send(BurstSocket& sender) const {
    const std::vector<FrameBytes> bytes(frames_.begin(), frames_.end());
    return sender.SendBurst(bytes, waiter_);
  }
  std::vector<Frame> Receive(std::size_t count, int flags = 0) const {
    std::vector<Frame> frames;
    while (frames.size() < count) {
      Frame frame(65536);
      const ssize_t size = recv(far_.Get(), frame.data(), frame.size(), flags);
      if (size <= 0) {
        break;  // shut down, or nothing there
      }
      frame.resize(static_cast<std::size_t>(size));
      frames.push_back(std::move(frame));
    }
    return frames;
  }

  platform::Descriptor near_;
  platform::Descriptor far_;
  std::vector<Frame> frames_;
  platform::DeadlineWaiter waiter_;
};

TEST_F(BurstSocketTest, WaitsForAFullSocketAndSendsEveryFrameInOrder) {
  std::vector<Frame> received;
  std::thread reader([&] { received = Receive(2 * frames_.size()); });
  BurstSocket sender(near_.Get(), std::chrono::hours(1));
  EXPECT_EQ(Send(sender), frames_.size());
  EXPECT_EQ(Send(sender), frames_.size());
  shutdown(far_.Get(), SHUT_RD);  // ends a reader that misses frames
  reader.join();
  std::vector<Frame> expected = frames_;
  expected.insert(expected.end(), frames_.begin(), frames_.end());
  EXPECT_EQ(received, expected);
}

TEST_F(BurstSocketTest, GivesUpOnASocketThatStaysFull) {
  BurstSocket sender(near_.Get(), std::chrono::milliseconds(10));
  const std::size_t sent = Send(sender);
  EXPECT_LT(sent, frames_.size());
  EXPECT_EQ(Send(sender), 0U);
  EXPECT_EQ(Receive(2 * frames_.size(), MSG_DONTWAIT).size(), sent);  // just what was reported
}

TEST_F(BurstSocketTest, HasNoPatienceLeftUntilAFrameIsTaken) {
  BurstSocket sender(near_.Get(), std::chrono::milliseconds(10));
  Send(sender);
  EXPECT_EQ(Send(sender), 0U);
  EXPECT_EQ(sender.Waits(), 1U);
  Receive(frames_.size(), MSG_DONTWAIT);
  EXPECT_GT(Send(sender), 0U);
  EXPECT_EQ(sender.Waits(), 2U);
}

TEST_F(BurstSocketTest, GivesUpWithTheWaiterHoweverPatient) {
  BurstSocket sender(near_.Get(), std::chrono::hours(1));
  waiter_.GiveUpAt(waiter_.Now() + std::chrono::milliseconds(10));
  EXPECT_LT(Send(sender), frames_.size());
  Receive(frames_.size(), MSG_DONTWAIT);
  EXPECT_EQ(Send(sender), 0U);  // although there is room
}

}  // namespace
}  // namespace ipplayout
