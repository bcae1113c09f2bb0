// SPDX-License-Identifier: MIT
// Sends RTP frames with transport stream packets as fast as an adapter takes them, or at a given
// rate: the load that the capture is measured with. Usage:
//   frame_blaster DEVICE FRAMES_PER_SECOND SECONDS [TS_PACKETS_PER_FRAME]
// A rate of 0 is as fast as possible. Prints how many frames the kernel took.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kHeaders = 14 + 20 + 8 + 12;
constexpr std::size_t kUdpAt = 34;
constexpr std::size_t kRtpAt = 42;
constexpr std::size_t kBatch = 64;  // a multiple of 16, after which continuity counters repeat

void Put16(std::vector<std::uint8_t>& frame, std::size_t at, std::size_t value) {
  frame[at] = static_cast<std::uint8_t>(value >> 8);
  frame[at + 1] = static_cast<std::uint8_t>(value);
}

std::uint16_t Checksum(const std::uint8_t* p, std::size_t length, std::uint32_t sum) {
  for (std::size_t i = 0; i + 1 < length; i += 2) {
    sum += (std::uint32_t{p[i]} << 8) | p[i + 1];
  }
  if (length % 2 != 0) {
    sum += std::uint32_t{p[length - 1]} << 8;
  }
  while (sum >> 16 != 0) {
    sum = (sum & 0xFFFFU) + (sum >> 16);
  }
  return static_cast<std::uint16_t>(~sum);
}

// A frame whose RTP sequence number is 0, and whose UDP checksum holds for that.
std::vector<std::uint8_t> MakeFrame(std::size_t index, std::size_t ts_packets) {
  std::vector<std::uint8_t> frame(kHeaders + ts_packets * 188);
  for (std::size_t i = 0; i < 12; ++i) {
    frame[i] = 2;  // nobody's addresses
  }
  Put16(frame, 12, 0x0800);
  frame[14] = 0x45;
  Put16(frame, 16, frame.size() - 14);
  frame[22] = 1;
  frame[23] = 17;
  const std::array<std::uint8_t, 8> addresses{10, 99, 0, 1, 239, 9, 9, 9};
  std::copy(addresses.begin(), addresses.end(), frame.begin() + 26);
  Put16(frame, 24, Checksum(&frame[14], 20, 0));
  Put16(frame, kUdpAt, 5000);
  Put16(frame, kUdpAt + 2, 5004);
  Put16(frame, kUdpAt + 4, frame.size() - kUdpAt);
  frame[kRtpAt] = 0x80;
  frame[kRtpAt + 1] = 33;
  frame[kRtpAt + 11] = 1;  // SSRC
  for (std::size_t i = 0; i < ts_packets; ++i) {
    const std::size_t at = kHeaders + i * 188;
    frame[at] = 0x47;
    Put16(frame, at + 1, 0x100);
    frame[at + 3] = static_cast<std::uint8_t>(0x10 | ((index * ts_packets + i) & 0x0F));
    for (std::size_t k = 4; k < 188; ++k) {
      frame[at + k] = static_cast<std::uint8_t>(k * 7 + i);
    }
  }
  const auto udp_length = static_cast<std::uint32_t>(frame.size() - kUdpAt);
  std::uint32_t pseudo = 17 + udp_length;
  for (std::size_t i = 0; i < 8; i += 2) {
    pseudo += (std::uint32_t{addresses[i]} << 8) | addresses[i + 1];
  }
  Put16(frame, kUdpAt + 6, Checksum(&frame[kUdpAt], udp_length, pseudo));
  return frame;
}

// Writes the sequence number and updates the checksum for it (RFC 1624).
void Number(std::vector<std::uint8_t>& frame, std::uint16_t checksum_of_zero,
            std::uint16_t sequence_number) {
  std::uint32_t sum =
      std::uint32_t{static_cast<std::uint16_t>(~checksum_of_zero)} + sequence_number;
  sum = (sum & 0xFFFFU) + (sum >> 16);
  const auto checksum = static_cast<std::uint16_t>(~sum);
  Put16(frame, kRtpAt + 2, sequence_number);
  Put16(frame, kUdpAt + 6, checksum == 0 ? 0xFFFFU : checksum);
}

int OpenSocket(const char* device) {
  const int fd = ::socket(AF_PACKET, SOCK_RAW, 0);
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = static_cast<int>(::if_nametoindex(device));
  const int bypass = 1;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::setsockopt(fd, SOL_PACKET, PACKET_QDISC_BYPASS, &bypass, sizeof bypass) != 0) {
    std::perror(device);
    std::exit(1);
  }
  return fd;
}

class Blaster {
 public:
  explicit Blaster(std::size_t ts_packets) {
    for (std::size_t i = 0; i < kBatch; ++i) {
      frames_[i] = MakeFrame(i, ts_packets);
      checksums_[i] =
          static_cast<std::uint16_t>((frames_[i][kUdpAt + 6] << 8) | frames_[i][kUdpAt + 7]);
      vectors_[i] = {frames_[i].data(), frames_[i].size()};
      messages_[i].msg_hdr.msg_iov = &vectors_[i];
      messages_[i].msg_hdr.msg_iovlen = 1;
    }
  }

  // Sends the next batch whole.
  void SendBatch(int fd) {
    for (std::size_t i = 0; i < kBatch; ++i) {
      Number(frames_[i], checksums_[i], static_cast<std::uint16_t>(sent_ + i));
    }
    std::size_t done = 0;
    while (done < kBatch) {
      const int n = ::sendmmsg(fd, &messages_[done], static_cast<unsigned>(kBatch - done), 0);
      if (n > 0) {
        done += static_cast<std::size_t>(n);
      } else if (errno != ENOBUFS && errno != EINTR) {
        std::perror("sendmmsg");
        std::exit(1);
      }
    }
    sent_ += kBatch;
  }

  std::uint64_t Sent() const { return sent_; }

 private:
  std::array<std::vector<std::uint8_t>, kBatch> frames_;
  std::array<std::uint16_t, kBatch> checksums_{};
  std::array<iovec, kBatch> vectors_{};
  std::array<mmsghdr, kBatch> messages_{};
  std::uint64_t sent_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fputs("usage: frame_blaster DEVICE FRAMES_PER_SECOND SECONDS [TS_PACKETS]\n", stderr);
    return 2;
  }
  const double rate = std::atof(argv[2]);
  const double seconds = std::atof(argv[3]);
  const std::size_t ts_packets = argc > 4 ? static_cast<std::size_t>(std::atoi(argv[4])) : 7;
  const int fd = OpenSocket(argv[1]);
  Blaster blaster(ts_packets);
  const auto start = Clock::now();
  const auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  while (elapsed() < seconds) {
    blaster.SendBatch(fd);
    while (rate > 0 && elapsed() * rate < static_cast<double>(blaster.Sent())) {
    }
  }
  const double took = elapsed();
  ::close(fd);
  std::printf("%llu frames in %.3f s, %.0f frames/s\n",
              static_cast<unsigned long long>(blaster.Sent()), took,
              static_cast<double>(blaster.Sent()) / took);
}
