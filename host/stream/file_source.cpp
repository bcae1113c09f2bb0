// SPDX-License-Identifier: MIT
#include "host/stream/file_source.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "host/base/poll_until.h"

namespace ipplay {

FileSource::FileSource(ReadableFile file, int stop_fd)
    : fd_(std::move(file.fd)), stop_fd_(stop_fd), size_(file.size) {}

// A file always has data, and looking for a stop takes no time.
bool FileSource::WaitForData() {
  if (size_) {
    pollfd stop{stop_fd_, POLLIN, 0};
    stopped_ = ::poll(&stop, 1, 0) > 0;
    return !stopped_;
  }
  std::array<pollfd, 2> waits{{{fd_.Get(), POLLIN, 0}, {stop_fd_, POLLIN, 0}}};
  while (PollUntil(waits, Idle().Due()) == 0) {
    Idle().run();
  }
  stopped_ = waits[1].revents != 0;
  return !stopped_;
}

std::size_t FileSource::Read(std::span<std::uint8_t> buffer) {
  while (WaitForData()) {
    const ssize_t count = ::read(fd_.Get(), buffer.data(), buffer.size());
    if (count >= 0) {
      return static_cast<std::size_t>(count);
    }
    if (errno == EINTR || errno == EAGAIN) {
      continue;
    }
    error_ = errno;
    return 0;
  }
  return 0;
}

void FileSource::Seek(std::uint64_t offset) {
  if (::lseek(fd_.Get(), static_cast<off_t>(offset), SEEK_SET) < 0) {
    error_ = errno;
  }
}

}  // namespace ipplay
