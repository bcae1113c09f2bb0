// SPDX-License-Identifier: MIT
// Starts a playout over and over, and prints on standard error when each IPStart was called:
// CLOCK_REALTIME, ns, the clock of the kernel's receive stamps.
//
// usage: play_starts DEVICE MEGABITS_PER_SECOND STARTS
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "ipplayout/ipplayout.h"
#include "wire/playout.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: play_starts DEVICE MEGABITS_PER_SECOND STARTS\n");
    return 2;
  }
  InitIpPlayout();
  if (!ConfigurePlayout(argv[1], std::strtod(argv[2], nullptr), 1)) {
    return 1;
  }
  constexpr std::uint16_t kUnits = 20 * 7 * 47;  // 20 datagrams, in units of 4 bytes
  const std::vector<std::uint8_t> data(std::size_t{kUnits} * 4, 0x47);
  for (int i = 0; i < std::atoi(argv[3]); ++i) {
    timespec before{};
    clock_gettime(CLOCK_REALTIME, &before);
    if (IPStart() != 0 || IPWrite(data.data(), kUnits) != 0) {
      std::fprintf(stderr, "start refused\n");
      return 1;
    }
    std::fprintf(stderr, "%lld%09ld\n", static_cast<long long>(before.tv_sec), before.tv_nsec);
    usleep(30'000);
    IPStop();
  }
  CleanupIpPlayout();
  return 0;
}
