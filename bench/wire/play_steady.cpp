// A host that keeps the ring full for a time: RTP over IPv4, frames of 1,370 bytes. Prints
// "datagrams seconds cpu_seconds" on standard error, since the library's messages go to standard
// output.
//
// usage: play_steady DEVICE MEGABITS_PER_SECOND SECONDS [COPIES [setting=value ...]]
//   settings: burst (datagrams), jitter (pattern:period)
#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ipplayout/ipplayout.h"

namespace {

int FindDevice(const char* device) {
  int count = 0;
  const DeviceListEntry* list = GetListOfDevices(&count);
  for (int i = 0; i < count; ++i) {
    if (std::string("rpcap://") + device == list[i].Name) {
      return i;
    }
  }
  return -1;
}

void Configure(std::uint32_t device, double megabits, int copies) {
  const std::uint8_t group_mac[6] = {0x01, 0x00, 0x5E, 0x01, 0x02, 0x03};
  const std::uint8_t own_mac[6] = {0x02, 0, 0, 0, 0, 1};
  const std::uint8_t source[4] = {10, 77, 0, 1};
  const std::uint8_t group[4] = {239, 1, 2, 3};
  SetDeviceIndex(device);
  SetProtocolMode(1);
  SetIPPacketSize(1370);
  SetTSPacketSize(188);
  SetIPBitRate(megabits);
  SetDestinationMacAddress(group_mac);
  SetSourceMacAddress(own_mac);
  SetEProtocol(0x0800);
  SetIPVersion(4);
  SetTTL(16);
  SetIPProtocol(17);
  SetSourceIP(source);
  SetDestinationIP(group);
  SetSourcePort(40000);
  SetDestinationPort(5004);
  SetRTPVersion(2);
  SetPayloadType(33);
  SetReplicationCount(copies - 1);
}

bool Apply(const char* text) {
  unsigned pattern = 0;
  float period = 0;
  unsigned burst = 0;
  if (std::sscanf(text, "burst=%u", &burst) == 1) {
    SetBurstMode(1);
    SetBurstValueType(1);
    SetBurstSize(burst);
    return true;
  }
  if (std::sscanf(text, "jitter=%u:%f", &pattern, &period) == 2) {
    SetJitterEnabled(1);
    SetJitterDistributionType(pattern);
    SetJitterPeriod(period);
    return true;
  }
  return false;
}

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: play_steady DEVICE MBIT/S SECONDS [COPIES [setting=value ...]]\n");
    return 2;
  }
  InitIpPlayout();
  const int device = FindDevice(argv[1]);
  if (device < 0) {
    std::fprintf(stderr, "%s: no such device\n", argv[1]);
    return 1;
  }
  Configure(static_cast<std::uint32_t>(device), std::strtod(argv[2], nullptr),
            argc > 4 ? std::atoi(argv[4]) : 1);
  for (int i = 5; i < argc; ++i) {
    if (!Apply(argv[i])) {
      std::fprintf(stderr, "%s: unknown setting\n", argv[i]);
      return 2;
    }
  }
  constexpr std::uint16_t kUnits = 7 * 47 * 100;  // 100 datagrams of 7 packets, in units of 4 bytes
  std::vector<std::uint8_t> data(std::size_t{kUnits} * 4, 0x47);
  if (IPStart() != 0) {
    std::fprintf(stderr, "start refused\n");
    return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  const double cpu = CpuSeconds();
  std::thread writer([&data] {
    while (IPWrite(data.data(), kUnits) == 0) {
    }
  });
  std::this_thread::sleep_for(std::chrono::duration<double>(std::strtod(argv[3], nullptr)));
  PlayoutStatistics statistics;
  GetPlayoutStatistics(&statistics);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  const double used = CpuSeconds() - cpu;
  IPStop();
  // The writer is let go by the stop when it waits for room; otherwise it fills the ring first.
  writer.join();
  CleanupIpPlayout();
  std::fprintf(stderr, "%llu %.6f %.6f\n",
               static_cast<unsigned long long>(statistics.DatagramsSent), elapsed.count(), used);
  return 0;
}
