// SPDX-License-Identifier: MIT
// The limit of an ordinary packet socket: frames of one size, ten to a system call, queueing
// discipline bypassed, nothing else. Prints "frames seconds".
//
// usage: bare_sendmmsg DEVICE FRAME_BYTES SECONDS
#include <sys/uio.h>

#include <chrono>

#include "wire/packet_socket.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: bare_sendmmsg DEVICE FRAME_BYTES SECONDS\n");
    return 2;
  }
  constexpr unsigned kFramesPerCall = 10;
  const int descriptor = OpenSendingSocket(argv[1]);
  std::vector<std::uint8_t> frame = MakeBareFrame(std::strtoul(argv[2], nullptr, 10));
  iovec part{frame.data(), frame.size()};
  std::array<mmsghdr, kFramesPerCall> messages{};
  for (mmsghdr& message : messages) {
    message.msg_hdr.msg_iov = &part;
    message.msg_hdr.msg_iovlen = 1;
  }
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  const auto end = start + std::chrono::duration<double>(std::strtod(argv[3], nullptr));
  std::uint64_t frames = 0;
  while (Clock::now() < end) {
    const int sent = sendmmsg(descriptor, messages.data(), kFramesPerCall, 0);
    if (sent > 0) {
      frames += static_cast<unsigned>(sent);
    }
  }
  const std::chrono::duration<double> elapsed = Clock::now() - start;
  std::printf("%llu %.6f\n", static_cast<unsigned long long>(frames), elapsed.count());
  return 0;
}
