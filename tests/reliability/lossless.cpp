// Plays a number of datagrams over a veth pair and compares what arrived with what was written:
// each stream's datagrams counted, its sequence numbers followed, its payload hashed in order.
//
// usage: lossless DATAGRAMS MBIT/S STREAMS [SAMPLES.csv]
//   SAMPLES.csv gets the host's resident memory and descriptors, every ten seconds.
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ipplayout/ipplayout.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kPayload = 1316;
constexpr std::size_t kHeaders = 54;
constexpr std::size_t kMostStreams = 8;
constexpr std::uint16_t kFirstPort = 5004;

// Follows the order too: the same datagrams in another order give another value.
class Hash {
 public:
  void Add(const std::uint8_t* bytes) {
    for (std::size_t i = 0; i < kPayload; i += 4) {
      std::uint32_t word;
      std::memcpy(&word, bytes + i, sizeof word);
      value_ = (value_ ^ word) * 0x9E3779B97F4A7C15U;
      value_ ^= value_ >> 29;
    }
  }
  std::uint64_t Value() const { return value_; }

 private:
  std::uint64_t value_ = 1;
};

struct Stream {
  std::uint64_t datagrams = 0;
  std::uint64_t out_of_order = 0;
  Hash payload;
};

struct Arrivals {
  std::array<Stream, kMostStreams> streams;
  std::uint64_t foreign = 0;
  std::uint64_t dropped = 0;  // by the receiving socket itself
};

class Receiver {
 public:
  Receiver() {
    socket_ = socket(AF_PACKET, SOCK_RAW, 0);
    const int room = 1 << 30;
    const timeval patience{0, 200000};
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex("far0"));
    if (setsockopt(socket_, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0 ||
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0 ||
        bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot capture at the far end");
    }
    for (std::size_t i = 0; i < kBurst; ++i) {
      parts_[i] = {buffers_[i].data(), buffers_[i].size()};
      messages_[i].msg_hdr.msg_iov = &parts_[i];
      messages_[i].msg_hdr.msg_iovlen = 1;
    }
  }

  // Until nothing comes any more after `ended` has become readable.
  Arrivals Collect(int ended) {
    for (;;) {
      const int count = recvmmsg(socket_, messages_.data(), kBurst, MSG_WAITFORONE, nullptr);
      for (int i = 0; i < count; ++i) {
        Take(buffers_[static_cast<std::size_t>(i)].data(),
             messages_[static_cast<std::size_t>(i)].msg_len);
      }
      pollfd end{ended, POLLIN, 0};
      if (count <= 0 && poll(&end, 1, 0) == 1) {
        break;
      }
    }
    tpacket_stats statistics{};
    socklen_t size = sizeof statistics;
    getsockopt(socket_, SOL_PACKET, PACKET_STATISTICS, &statistics, &size);
    arrivals_.dropped = statistics.tp_drops;
    return arrivals_;
  }

 private:
  static constexpr unsigned kBurst = 256;

  void Take(const std::uint8_t* frame, std::size_t length) {
    constexpr std::size_t kPort = 36;
    constexpr std::size_t kSequence = 44;
    const auto stream =
        static_cast<std::size_t>((frame[kPort] << 8 | frame[kPort + 1]) - kFirstPort);
    if (length != kHeaders + kPayload || stream >= kMostStreams) {
      ++arrivals_.foreign;
      return;
    }
    Stream& found = arrivals_.streams[stream];
    const auto sequence = static_cast<std::uint16_t>(frame[kSequence] << 8 | frame[kSequence + 1]);
    found.out_of_order += sequence != static_cast<std::uint16_t>(found.datagrams) ? 1 : 0;
    found.payload.Add(frame + kHeaders);
    ++found.datagrams;
  }

  int socket_ = -1;
  std::array<std::array<std::uint8_t, 2048>, kBurst> buffers_{};
  std::array<iovec, kBurst> parts_{};
  std::array<mmsghdr, kBurst> messages_{};
  Arrivals arrivals_;
};

void Configure(double megabits, std::uint32_t streams) {
  const std::uint8_t group_mac[6] = {0x01, 0x00, 0x5E, 0x01, 0x02, 0x03};
  const std::uint8_t own_mac[6] = {0x02, 0, 0, 0, 0, 1};
  const std::uint8_t source[4] = {10, 77, 0, 1};
  const std::uint8_t group[4] = {239, 1, 2, 3};
  SetIPPacketSize(kHeaders + kPayload);
  SetTSPacketSize(188);
  SetProtocolMode(1);
  SetIPBitRate(megabits);
  SetDestinationMacAddress(group_mac);
  SetSourceMacAddress(own_mac);
  SetEProtocol(ETHERTYPE_IP);
  SetIPVersion(4);
  SetTTL(16);
  SetIPProtocol(IPPROTO_UDP);
  SetSourceIP(source);
  SetDestinationIP(group);
  SetSourcePort(40000);
  SetDestinationPort(kFirstPort);
  SetRTPVersion(2);
  SetPayloadType(33);
  SetSequenceNumber(0);
  SetReplicationCount(static_cast<std::int32_t>(streams) - 1);
  SetDestinationPortIncrement(1);
}

// Appends a row at the start and every ten seconds.
class Samples {
 public:
  explicit Samples(const char* path) {
    if (path != nullptr) {
      file_.open(path);
      file_ << "seconds,resident_kib,descriptors,datagrams\n";
    }
  }

  void Take() {
    if (!file_.is_open() || Clock::now() < next_) {
      return;
    }
    std::size_t total = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    const auto files = std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                     std::filesystem::directory_iterator());
    PlayoutStatistics statistics;
    GetPlayoutStatistics(&statistics);
    const auto time = std::chrono::round<std::chrono::seconds>(Clock::now() - start_);
    file_ << time.count() << ',' << resident * static_cast<std::size_t>(getpagesize()) / 1024 << ','
          << files << ',' << statistics.DatagramsSent << std::endl;
    next_ += std::chrono::seconds(10);
  }

 private:
  std::ofstream file_;
  const Clock::time_point start_ = Clock::now();
  Clock::time_point next_ = start_;
};

// Fills the datagrams with numbers that never repeat.
void Fill(std::vector<std::uint8_t>& datagrams) {
  static std::uint64_t state = 0;
  for (std::size_t i = 0; i < datagrams.size(); i += 4) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    const auto word = static_cast<std::uint32_t>(state >> 32);
    std::memcpy(&datagrams[i], &word, sizeof word);
  }
}

// Writes the datagrams as a host does; the hash of what was written.
std::uint64_t Play(std::uint64_t datagrams, Samples& samples) {
  constexpr std::uint64_t kAtOnce = 100;
  Hash written;
  if (IPStart() != 0) {
    throw std::runtime_error("start refused");
  }
  std::vector<std::uint8_t> data;
  for (std::uint64_t left = datagrams; left > 0;) {
    const std::uint64_t count = std::min(left, kAtOnce);
    data.resize(count * kPayload);
    Fill(data);
    for (std::size_t i = 0; i < count; ++i) {
      written.Add(&data[i * kPayload]);
    }
    if (IPWrite(data.data(), static_cast<std::uint16_t>(data.size() / 4)) != 0) {
      throw std::runtime_error("write refused");
    }
    left -= count;
    samples.Take();
  }
  IPWriteTerminate();
  return written.Value();
}

int Compare(const Arrivals& arrivals, std::uint64_t hash, std::uint64_t expected,
            std::size_t streams, double seconds) {
  PlayoutStatistics statistics;
  GetPlayoutStatistics(&statistics);
  bool equal = statistics.DatagramsSent == expected &&
               statistics.BytesSent == expected * (kHeaders + kPayload) &&
               statistics.TSBytesSent == expected * kPayload && arrivals.foreign == 0;
  std::fprintf(stderr, "%llu datagrams written and counted as %llu in %.1f s\n",
               static_cast<unsigned long long>(expected),
               static_cast<unsigned long long>(statistics.DatagramsSent), seconds);
  for (std::size_t i = 0; i < kMostStreams; ++i) {
    const Stream& stream = arrivals.streams[i];
    const bool wanted = i < streams;
    if (wanted || stream.datagrams != 0) {
      std::fprintf(stderr, "stream %zu: %llu arrived, %llu out of order, payload %s\n", i,
                   static_cast<unsigned long long>(stream.datagrams),
                   static_cast<unsigned long long>(stream.out_of_order),
                   stream.payload.Value() == hash ? "equal" : "DIFFERS");
    }
    equal = equal && stream.datagrams == (wanted ? expected : 0) && stream.out_of_order == 0 &&
            (!wanted || stream.payload.Value() == hash);
  }
  std::fprintf(stderr, "%llu foreign frames, %llu dropped by the receiver itself\n",
               static_cast<unsigned long long>(arrivals.foreign),
               static_cast<unsigned long long>(arrivals.dropped));
  return equal ? 0 : 1;
}

void Check(bool good, const char* problem) {
  if (!good) {
    throw std::runtime_error(problem);
  }
}

// A network namespace that sends nothing of its own accord, for the calling process.
bool EnterNewNetwork() {
  return unshare(CLONE_NEWNET) == 0 &&
         std::system("echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6") == 0;
}

// The far end of the wire, in a process and a network namespace of its own.
class FarEnd {
 public:
  FarEnd() {
    Check(pipe(commands_) == 0 && pipe(reports_) == 0, "no pipes");
    Check(EnterNewNetwork(), "may not make network namespaces");
    process_ = fork();
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      _exit(Receive() ? 0 : 1);
    }
    Expect<char>();
    const std::string peer = " type veth peer name far0 netns " + std::to_string(process_);
    Check(std::system(("ip link add near0" + peer + " && ip link set near0 up").c_str()) == 0,
          "no veth pair");
    Command();
    Expect<char>();
  }

  Arrivals Arrived() {
    Command();
    const auto arrivals = Expect<Arrivals>();
    waitpid(process_, nullptr, 0);
    return arrivals;
  }

 private:
  bool Receive() {
    char command = 0;
    if (!EnterNewNetwork() || write(reports_[1], "", 1) != 1 ||
        read(commands_[0], &command, 1) != 1 || std::system("ip link set far0 up") != 0) {
      return false;
    }
    static Receiver receiver;
    if (write(reports_[1], "", 1) != 1) {
      return false;
    }
    const Arrivals arrivals = receiver.Collect(commands_[0]);
    return write(reports_[1], &arrivals, sizeof arrivals) == sizeof arrivals;
  }

  void Command() { Check(write(commands_[1], "", 1) == 1, "the receiver has ended"); }

  template <typename T>
  T Expect() {
    T value;
    close(std::exchange(reports_[1], -1));
    Check(read(reports_[0], &value, sizeof value) == sizeof value, "the receiver has ended");
    return value;
  }

  int commands_[2];
  int reports_[2];
  pid_t process_ = 0;
};

int Run(std::uint64_t datagrams, double megabits, std::uint32_t streams, const char* samples_path) {
  FarEnd far_end;
  InitIpPlayout();
  int count = 0;
  const DeviceListEntry* devices = GetListOfDevices(&count);
  for (int i = 0; i < count; ++i) {
    if (std::strcmp(devices[i].Name, "rpcap://near0") == 0) {
      SetDeviceIndex(static_cast<std::uint32_t>(i));
    }
  }
  Configure(megabits, streams);
  Samples samples(samples_path);
  const auto start = Clock::now();
  const std::uint64_t hash = Play(datagrams, samples);
  const std::chrono::duration<double> elapsed = Clock::now() - start;
  IPStop();
  const int result = Compare(far_end.Arrived(), hash, datagrams, streams, elapsed.count());
  CleanupIpPlayout();
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t datagrams = argc > 3 ? std::strtoull(argv[1], nullptr, 10) : 0;
  const double megabits = argc > 3 ? std::strtod(argv[2], nullptr) : 0;
  const unsigned long streams = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 0;
  if (datagrams == 0 || !(megabits > 0) || streams == 0 || streams > kMostStreams) {
    std::fprintf(stderr, "usage: lossless DATAGRAMS MBIT/S STREAMS (up to 8) [SAMPLES.csv]\n");
    return 2;
  }
  try {
    return Run(datagrams, megabits, static_cast<std::uint32_t>(streams),
               argc > 4 ? argv[4] : nullptr);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lossless: %s\n", error.what());
    return 1;
  }
}
