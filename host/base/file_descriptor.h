// SPDX-License-Identifier: MIT
// A file descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <utility>

namespace ipplay {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~FileDescriptor() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }

  int Get() const { return fd_; }
  bool IsOpen() const { return fd_ >= 0; }
  // The caller has to close it.
  int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

}  // namespace ipplay
