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

// The header of what play_steady sends, so that the far end has the same work with it: Ethernet II
// and IPv4 to a multicast group, UDP. Worked out by hand for frames of 1,370 bytes.
std::vector<std::uint8_t> MakeFrame(std::size_t size) {
  std::vector<std::uint8_t> frame(size, 0x47);
  constexpr std::array<std::uint8_t, 42> kHeader{
      0x01, 0x00, 0x5E, 0x01, 0x02, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01, 0x08, 0x00,  //
      0x45, 0x00, 0x05, 0x4C, 0x00, 0x00, 0x40, 0x00, 0x10, 0x11, 0x6A, 0x4F, 0x0A, 0x4D,  //
      0x00, 0x01, 0xEF, 0x01, 0x02, 0x03, 0x9C, 0x40, 0x13, 0x8C, 0x05, 0x38, 0x00, 0x00};
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
