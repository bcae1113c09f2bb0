// SPDX-License-Identifier: MIT
// A host that keeps the ring full for a time: RTP over IPv4, frames of 1,370 bytes. Prints
// "datagrams seconds cpu_seconds datagrams_in_all" on standard error, since the library's messages
// go to standard output. The first three are of the time given, the last one counts to the end.
//
// usage: play_steady DEVICE MEGABITS_PER_SECOND SECONDS [COPIES [setting=value ...]]
//   settings: burst=DATAGRAMS, jitter=PATTERN:PERIOD,
//             pause=AT:FOR, starve=AT:FOR (seconds; starve: nothing is in the ring meanwhile)
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "ipplayout/ipplayout.h"
#include "wire/playout.h"

namespace {

using std::chrono::duration;

constexpr std::uint32_t kPayload = 7 * 188;
constexpr double kFrame = 1370;
constexpr std::uint16_t kSlice = 100;  // datagrams to a write

struct Interruption {
  double at = 0;
  double length = 0;  // 0: none
};

struct Run {
  double megabits = 0;
  double seconds = 0;
  Interruption pause;
  Interruption starve;
};

bool ReadSetting(const char* text, Run& run) {
  return ApplyTiming(text) ||
         std::sscanf(text, "pause=%lf:%lf", &run.pause.at, &run.pause.length) == 2 ||
         std::sscanf(text, "starve=%lf:%lf", &run.starve.at, &run.starve.length) == 2;
}

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

// Writes until the playout is stopped, which `stopped` tells of before: a stop lets go a write that
// waits, and a later one would fill the ring for the next playout.
void WriteData(const Run& run, const std::atomic<bool>& stopped) {
  const std::vector<std::uint8_t> data(std::size_t{kSlice} * kPayload, 0x47);
  const auto start = std::chrono::steady_clock::now();
  if (run.starve.length > 0) {
    auto left = static_cast<std::int64_t>(run.starve.at * run.megabits * 1e6 / 8 / kFrame);
    while (left-- > 0 && !stopped && IPWrite(data.data(), kPayload / 4) == 0) {
    }
    std::this_thread::sleep_until(start + duration<double>(run.starve.at + run.starve.length));
  }
  while (!stopped && IPWrite(data.data(), kSlice * kPayload / 4) == 0) {
  }
}

void Wait(const Run& run) {
  const auto start = std::chrono::steady_clock::now();
  if (run.pause.length > 0) {
    std::this_thread::sleep_for(duration<double>(run.pause.at));
    IPPause(1);
    std::this_thread::sleep_for(duration<double>(run.pause.length));
    IPPause(0);
  }
  std::this_thread::sleep_until(start + duration<double>(run.seconds));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: play_steady DEVICE MBIT/S SECONDS [COPIES [setting=value ...]]\n");
    return 2;
  }
  Run run{std::strtod(argv[2], nullptr), std::strtod(argv[3], nullptr), {}, {}};
  InitIpPlayout();
  if (!ConfigurePlayout(argv[1], run.megabits, argc > 4 ? std::atoi(argv[4]) : 1)) {
    return 1;
  }
  for (int i = 5; i < argc; ++i) {
    if (!ReadSetting(argv[i], run)) {
      std::fprintf(stderr, "%s: unknown setting\n", argv[i]);
      return 2;
    }
  }
  if (IPStart() != 0) {
    std::fprintf(stderr, "start refused\n");
    return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  const double cpu = CpuSeconds();
  std::atomic<bool> stopped{false};
  std::thread writer(WriteData, run, std::cref(stopped));
  Wait(run);
  PlayoutStatistics statistics;
  GetPlayoutStatistics(&statistics);
  const duration<double> elapsed = std::chrono::steady_clock::now() - start;
  const double used = CpuSeconds() - cpu;
  stopped = true;
  IPStop();
  writer.join();
  PlayoutStatistics last;
  GetPlayoutStatistics(&last);
  CleanupIpPlayout();
  std::fprintf(stderr, "%llu %.6f %.6f %llu\n",
               static_cast<unsigned long long>(statistics.DatagramsSent), elapsed.count(), used,
               static_cast<unsigned long long>(last.DatagramsSent));
  return 0;
}
