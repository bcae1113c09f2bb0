// SPDX-License-Identifier: MIT
// The judge of the yardstick: notes when the kernel received each frame of an adapter that carries
// UDP over IPv4 to port 5004, and what it was. Writes 16 bytes per frame to a file: time of arrival
// (ns, CLOCK_REALTIME, u64), frame length (u16), low 16 bits of the destination address (u16), RTP
// sequence number (u16), 0 (u16). Says "ready" once it listens; on SIGTERM prints, as JSON, the
// frames that it had no room for and by how much the two clocks were apart at both ends.
//
// usage: wire_receiver DEVICE FILE
#include <linux/filter.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "wire/packet_socket.h"

namespace {

constexpr std::uint32_t kBlockBytes = 1 << 20;
constexpr std::uint32_t kBlocks = 64;
constexpr std::size_t kHeaders = 46;  // Ethernet, IPv4, UDP and the first four bytes of RTP
constexpr std::uint32_t kKeptBytes = 64;

struct Arrival {
  std::uint64_t time_ns;
  std::uint16_t length;
  std::uint16_t destination;
  std::uint16_t sequence_number;
  std::uint16_t zero;
};

volatile sig_atomic_t stop_requested = 0;

void RequestStop(int) {
  stop_requested = 1;
}

std::int64_t Now(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// How far CLOCK_REALTIME is ahead, from the narrowest of some readings around it.
std::int64_t RealtimeLead() {
  std::int64_t lead = 0;
  std::int64_t narrowest = INT64_MAX;
  for (int i = 0; i < 20; ++i) {
    const std::int64_t before = Now(CLOCK_MONOTONIC);
    const std::int64_t real = Now(CLOCK_REALTIME);
    const std::int64_t width = Now(CLOCK_MONOTONIC) - before;
    if (width < narrowest) {
      narrowest = width;
      lead = real - before - width / 2;
    }
  }
  return lead;
}

std::uint16_t Read16(const std::uint8_t* at) {
  return static_cast<std::uint16_t>((at[0] << 8) | at[1]);
}

class FrameRing {
 public:
  explicit FrameRing(const char* device) : descriptor_(OpenPacketSocket(device)) {
    const int version = TPACKET_V3;
    const int on = 1;
    tpacket_req3 request{};
    request.tp_block_size = kBlockBytes;
    request.tp_block_nr = kBlocks;
    request.tp_frame_size = 2048;
    request.tp_frame_nr = kBlockBytes / 2048 * kBlocks;
    request.tp_retire_blk_tov = 50;  // ms: few wake-ups, for the senders share these cores
    setsockopt(descriptor_, SOL_PACKET, PACKET_VERSION, &version, sizeof version);
    // Without this the stamp is taken when the ring gets the frame, later than its arrival.
    setsockopt(descriptor_, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    sock_filter head_only{BPF_RET | BPF_K, 0, 0, kKeptBytes};
    const sock_fprog program{1, &head_only};
    setsockopt(descriptor_, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
    if (setsockopt(descriptor_, SOL_PACKET, PACKET_RX_RING, &request, sizeof request) != 0) {
      std::perror("PACKET_RX_RING");
      std::exit(1);
    }
    ring_ = static_cast<std::uint8_t*>(mmap(nullptr, std::size_t{kBlockBytes} * kBlocks,
                                            PROT_READ | PROT_WRITE, MAP_SHARED, descriptor_, 0));
    // What came before there is room for it would count as missed. All protocols: ahead of a
    // bridge.
    BindPacketSocket(descriptor_, device, ETH_P_ALL);
  }

  // Appends what the next block holds; false when there is none yet.
  bool TakeBlock(std::vector<Arrival>& arrivals) {
    auto* block = reinterpret_cast<tpacket_block_desc*>(ring_ + std::size_t{next_} * kBlockBytes);
    tpacket_hdr_v1& header = block->hdr.bh1;
    if ((__atomic_load_n(&header.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) == 0) {
      return false;
    }
    const std::uint8_t* at = reinterpret_cast<std::uint8_t*>(block) + header.offset_to_first_pkt;
    for (std::uint32_t i = 0; i < header.num_pkts; ++i) {
      const auto* frame = reinterpret_cast<const tpacket3_hdr*>(at);
      Note(*frame, at + frame->tp_mac, arrivals);
      at += frame->tp_next_offset;
    }
    __atomic_store_n(&header.block_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
    next_ = (next_ + 1) % kBlocks;
    return true;
  }

  void WaitForBlock() {
    pollfd descriptor{descriptor_, POLLIN, 0};
    poll(&descriptor, 1, 100);
  }

  unsigned Dropped() const {
    tpacket_stats_v3 statistics{};
    socklen_t size = sizeof statistics;
    getsockopt(descriptor_, SOL_PACKET, PACKET_STATISTICS, &statistics, &size);
    return statistics.tp_drops;
  }

 private:
  static void Note(const tpacket3_hdr& frame, const std::uint8_t* bytes,
                   std::vector<Arrival>& arrivals) {
    constexpr std::uint8_t kUdp = 17;
    constexpr std::uint16_t kPort = 5004;
    if (frame.tp_snaplen < kHeaders || bytes[23] != kUdp || Read16(bytes + 36) != kPort) {
      return;
    }
    arrivals.push_back({std::uint64_t{frame.tp_sec} * 1'000'000'000 + frame.tp_nsec,
                        static_cast<std::uint16_t>(frame.tp_len), Read16(bytes + 32),
                        Read16(bytes + 44), 0});
  }

  int descriptor_;
  std::uint8_t* ring_ = nullptr;
  std::uint32_t next_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: wire_receiver DEVICE FILE\n");
    return 2;
  }
  signal(SIGTERM, RequestStop);
  FrameRing ring(argv[1]);
  std::vector<Arrival> arrivals;
  arrivals.reserve(1 << 20);
  const std::int64_t lead_at_start = RealtimeLead();
  std::printf("ready\n");
  std::fflush(stdout);
  while (stop_requested == 0) {
    if (!ring.TakeBlock(arrivals)) {
      ring.WaitForBlock();
    }
  }
  usleep(100'000);  // the block in hand is passed on after its time
  while (ring.TakeBlock(arrivals)) {
  }
  std::FILE* file = std::fopen(argv[2], "wb");
  if (file == nullptr ||
      std::fwrite(arrivals.data(), sizeof(Arrival), arrivals.size(), file) != arrivals.size() ||
      std::fclose(file) != 0) {
    std::perror(argv[2]);
    return 1;
  }
  std::printf("{\"dropped\": %u, \"realtime_lead_ns\": [%lld, %lld]}\n", ring.Dropped(),
              static_cast<long long>(lead_at_start), static_cast<long long>(RealtimeLead()));
  return 0;
}
