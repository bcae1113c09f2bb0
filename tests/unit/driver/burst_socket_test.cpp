// The socket is one end of a local datagram pair: like a packet socket it keeps frames apart, takes
// a few and then has to be waited for.
#include "driver/burst_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "platform/descriptor.h"

namespace ipplayout {
namespace {

using Frame = std::vector<std::uint8_t>;

struct SocketPair {
  SocketPair() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    near = platform::Descriptor(ends[0]);
    far = platform::Descriptor(ends[1]);
  }
  platform::Descriptor near;
  platform::Descriptor far;
};

std::vector<Frame> MakeFrames(std::size_t count) {
  std::vector<Frame> frames;
  for (std::size_t i = 0; i < count; ++i) {
    frames.emplace_back(i + 1, static_cast<std::uint8_t>(i));
  }
  return frames;
}

std::size_t Send(BurstSocket& sender, const std::vector<Frame>& frames) {
  const std::vector<FrameBytes> bytes(frames.begin(), frames.end());
  return sender.SendBurst(bytes);
}

std::vector<Frame> Receive(int descriptor, std::size_t count) {
  std::vector<Frame> frames;
  while (frames.size() < count) {
    Frame frame(65536);
    const ssize_t size = recv(descriptor, frame.data(), frame.size(), 0);
    if (size <= 0) {
      break;  // shut down
    }
    frame.resize(static_cast<std::size_t>(size));
    frames.push_back(std::move(frame));
  }
  return frames;
}

TEST(BurstSocket, WaitsForAFullSocketAndSendsEveryFrameInOrder) {
  const SocketPair pair;
  auto frames = MakeFrames(BurstSocket::kMostFrames);
  for (Frame& frame : frames) {
    frame.resize(60'000, frame.front());  // all together many times what the socket holds
  }
  std::vector<Frame> received;
  std::thread reader([&] { received = Receive(pair.far.Get(), 2 * frames.size()); });
  BurstSocket sender(pair.near.Get(), std::chrono::hours(1));
  EXPECT_EQ(Send(sender, frames), frames.size());
  EXPECT_EQ(Send(sender, frames), frames.size());
  shutdown(pair.far.Get(), SHUT_RD);  // ends a reader that misses frames
  reader.join();
  std::vector<Frame> expected = frames;
  expected.insert(expected.end(), frames.begin(), frames.end());
  EXPECT_EQ(received, expected);
}

TEST(BurstSocket, GivesUpOnASocketThatStaysFull) {
  const SocketPair pair;
  const auto frames = MakeFrames(BurstSocket::kMostFrames);
  BurstSocket sender(pair.near.Get(), std::chrono::milliseconds(10));
  std::size_t in_queue = 0;
  for (std::size_t sent = frames.size(); sent == frames.size();) {
    sent = Send(sender, frames);
    in_queue += sent;
  }
  EXPECT_EQ(Send(sender, frames), 0u);
  // Just what was reported as sent is there.
  EXPECT_EQ(Receive(pair.far.Get(), in_queue).size(), in_queue);
  Frame more(1);
  EXPECT_EQ(recv(pair.far.Get(), more.data(), more.size(), MSG_DONTWAIT), -1);
}

TEST(BurstSocket, OtherErrorsEndTheBurstAtOnce) {
  const SocketPair pair;
  BurstSocket sender(pair.near.Get(), std::chrono::hours(1));
  auto frames = MakeFrames(3);
  frames[1].resize(16 * 1024 * 1024);  // EMSGSIZE
  EXPECT_EQ(Send(sender, frames), 1u);
  EXPECT_EQ(Receive(pair.far.Get(), 1), MakeFrames(1));

  BurstSocket closed(-1, std::chrono::hours(1));
  EXPECT_EQ(Send(closed, MakeFrames(2)), 0u);
}

}  // namespace
}  // namespace ipplayout
