// SPDX-License-Identifier: MIT
#include "host/stream/input.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace ipplay {

Input::Input(FileDescriptor fd, std::string name, int stop_fd)
    : fd_(std::move(fd)), name_(std::move(name)), stop_fd_(stop_fd) {}

Result<Input> Input::Open(const std::string& path, int stop_fd) {
  const bool standard_input = path == "-";
  FileDescriptor fd(standard_input ? ::dup(STDIN_FILENO)
                                   : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (!fd.IsOpen() || ::fstat(fd.Get(), &status) != 0) {
    return UsageFailure(fmt::format("INPUT: cannot read {}: {}", path, std::strerror(errno)));
  }
  if (S_ISDIR(status.st_mode)) {
    return UsageFailure(fmt::format("INPUT: {} is a folder; allowed is a file or -", path));
  }
  Input input(std::move(fd), standard_input ? "standard input" : path, stop_fd);
  // A file that standard input is redirected from may have been read in part by somebody else.
  if (S_ISREG(status.st_mode) && ::lseek(input.fd_.Get(), 0, SEEK_SET) == 0) {
    input.size_ = static_cast<std::uint64_t>(status.st_size);
    ::posix_fadvise(input.fd_.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  }
  return input;
}

bool Input::WaitForData() const {
  std::array<pollfd, 2> waits{{{fd_.Get(), POLLIN, 0}, {stop_fd_, POLLIN, 0}}};
  while (::poll(waits.data(), waits.size(), -1) < 0 && errno == EINTR) {
  }
  return waits[1].revents == 0;
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
  while (size_ || WaitForData()) {
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
