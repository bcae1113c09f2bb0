// SPDX-License-Identifier: MIT
// The limit of timing from user space: one frame at a time on an absolute grid, asleep until 150 us
// before each point and spinning for the rest, nothing else.
//
// usage: bare_pacing DEVICE FRAME_BYTES BITS_PER_SECOND SECONDS
#include <sched.h>
#include <sys/prctl.h>
#include <time.h>

#include "wire/packet_socket.h"

namespace {

constexpr std::int64_t kSpinNs = 150'000;
constexpr std::int64_t kSecondNs = 1'000'000'000;

std::int64_t NowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kSecondNs + now.tv_nsec;
}

void WaitUntil(std::int64_t due) {
  const std::int64_t wake = due - kSpinNs;
  if (NowNs() < wake) {
    const timespec time{wake / kSecondNs, wake % kSecondNs};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
  }
  while (NowNs() < due) {
  }
}

// The class that the library's threads ask for too.
void UseRealTimeClass() {
  const sched_param parameters{1};
  sched_setscheduler(0, SCHED_FIFO, &parameters);
  prctl(PR_SET_TIMERSLACK, 1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: bare_pacing DEVICE FRAME_BYTES BITS_PER_SECOND SECONDS\n");
    return 2;
  }
  const int descriptor = OpenSendingSocket(argv[1]);
  const std::vector<std::uint8_t> frame = MakeBareFrame(std::strtoul(argv[2], nullptr, 10));
  const double gap_ns = static_cast<double>(frame.size()) * 8e9 / std::strtod(argv[3], nullptr);
  const auto frames = static_cast<std::uint64_t>(std::strtod(argv[4], nullptr) * 1e9 / gap_ns);
  // A thread of that class which never sleeps is stopped by the kernel for 50 ms in every second.
  if (gap_ns > 2 * kSpinNs) {
    UseRealTimeClass();
  }
  const std::int64_t start = NowNs();
  for (std::uint64_t i = 0; i < frames; ++i) {
    WaitUntil(start + static_cast<std::int64_t>(static_cast<double>(i) * gap_ns));
    if (send(descriptor, frame.data(), frame.size(), 0) < 0) {
      std::perror("send");
      return 1;
    }
  }
  return 0;
}
