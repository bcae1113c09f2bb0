// SPDX-License-Identifier: MIT
#include "host/stream/input.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "host/base/readable_file.h"

namespace ipplay {

Input::Input(FileDescriptor fd, std::string name, int stop_fd)
    : fd_(std::move(fd)), name_(std::move(name)), stop_fd_(stop_fd) {}

Result<Input> Input::Open(const std::string& path, int stop_fd) {
  ReadableFile file = OpenForReading(path);
  if (!file.fd.IsOpen()) {
    return UsageFailure(fmt::format("INPUT: cannot read {}: {}", path, std::strerror(errno)));
  }
  if (file.is_folder) {
    return UsageFailure(fmt::format("INPUT: {} is a folder; give a file or -", path));
  }
  Input input(std::move(file.fd), path == "-" ? "standard input" : path, stop_fd);
  input.size_ = file.size;
  return input;
}

// A file always has data, and looking for a stop takes no time.
bool Input::WaitForData() {
  if (size_) {
    pollfd stop{stop_fd_, POLLIN, 0};
    stopped_ = ::poll(&stop, 1, 0) > 0;
    return !stopped_;
  }
  std::array<pollfd, 2> waits{{{fd_.Get(), POLLIN, 0}, {stop_fd_, POLLIN, 0}}};
  while (::poll(waits.data(), waits.size(), -1) < 0 && errno == EINTR) {
  }
  stopped_ = waits[1].revents != 0;
  return !stopped_;
}

std::size_t Input::Read(std::span<std::uint8_t> buffer) {
  if (unread_taken_ < unread_.size()) {
    const std::size_t count = std::min(buffer.size(), unread_.size() - unread_taken_);
    std::memcpy(buffer.data(), unread_.data() + unread_taken_, count);
    unread_taken_ += count;
    return count;
  }
  unread_ = {};
  unread_taken_ = 0;
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

std::size_t Input::ReadFully(std::span<std::uint8_t> buffer) {
  std::size_t filled = 0;
  while (filled < buffer.size()) {
    const std::size_t count = Read(buffer.subspan(filled));
    if (count == 0) {
      break;
    }
    filled += count;
  }
  return filled;
}

void Input::Unread(std::vector<std::uint8_t> bytes) {
  bytes.insert(bytes.end(), unread_.begin() + static_cast<std::ptrdiff_t>(unread_taken_),
               unread_.end());
  unread_ = std::move(bytes);
  unread_taken_ = 0;
}

void Input::Seek(std::uint64_t offset) {
  unread_ = {};
  unread_taken_ = 0;
  if (::lseek(fd_.Get(), static_cast<off_t>(offset), SEEK_SET) < 0) {
    error_ = errno;
  }
}

}  // namespace ipplay
