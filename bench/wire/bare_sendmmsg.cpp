// The limit of an ordinary packet socket: frames of one size, ten to a system call, queueing
// discipline bypassed, nothing else. Prints "frames seconds".
//
// usage: bare_sendmmsg DEVICE FRAME_BYTES SECONDS
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

constexpr unsigned kFramesPerCall = 10;

int OpenSocket(const char* device) {
  const int descriptor = socket(AF_PACKET, SOCK_RAW, 0);
  const int on = 1;
  setsockopt(descriptor, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on);
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = static_cast<int>(if_nametoindex(device));
  if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return -1;
  }
  return descriptor;
}

// Ethernet II with an EtherType set aside for experiments (IEEE 802 clause 9.2.3).
std::vector<std::uint8_t> MakeFrame(std::size_t size) {
  std::vector<std::uint8_t> frame(size, 0x47);
  constexpr std::array<std::uint8_t, 14> kHeader{0x01, 0, 0x5E, 1, 2,    3,    2,
                                                 0,    0, 0,    0, 0x01, 0x88, 0xB5};
  std::copy(kHeader.begin(), kHeader.end(), frame.begin());
  return frame;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: bare_sendmmsg DEVICE FRAME_BYTES SECONDS\n");
    return 2;
  }
  const int descriptor = OpenSocket(argv[1]);
  if (descriptor < 0) {
    std::perror(argv[1]);
    return 1;
  }
  std::vector<std::uint8_t> frame = MakeFrame(std::strtoul(argv[2], nullptr, 10));
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
