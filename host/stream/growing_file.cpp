// SPDX-License-Identifier: MIT
#include "host/stream/growing_file.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace ipplay {

// A file does not say that it has grown, so it is looked at now and then.
std::size_t GrowingFile::Read(std::span<std::uint8_t> buffer) {
  constexpr int kLookAgainMs = 20;
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  while (true) {
    const ssize_t count = ::read(fd_.Get(), buffer.data(), buffer.size());
    if (count > 0) {
      return static_cast<std::size_t>(count);
    }
    if (count < 0 && errno != EINTR && errno != EAGAIN) {
      error_ = errno;
      return 0;
    }
    if (silence_ && Clock::now() - start >= *silence_) {
      return 0;
    }
    if (const auto due = Idle().Due(); due && Clock::time_point(*due) <= Clock::now()) {
      Idle().run();
    }
    pollfd stop{stop_fd_, POLLIN, 0};
    stopped_ = ::poll(&stop, 1, kLookAgainMs) > 0;
    if (stopped_) {
      return 0;
    }
  }
}

}  // namespace ipplay
