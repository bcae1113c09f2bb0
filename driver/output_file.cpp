// SPDX-License-Identifier: MIT
#include "driver/output_file.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "platform/clock.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

constexpr nanoseconds kPatienceAtTheEnd = std::chrono::seconds(5);
// Between two looks whether to give up.
constexpr int kPieceOfWaitMs = 50;
constexpr mode_t kReadableAndWritable = 0666;  // less what the process's mask takes away

bool IsRegularOrMissing(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) {
    return S_ISREG(status.st_mode);
  }
  return errno == ENOENT && !path.empty();
}

// A pipe whose reader has gone is an error, not a signal that ends the host.
ssize_t WriteWithoutSignal(int descriptor, const std::uint8_t* data, std::size_t size) {
  sigset_t pipe;
  sigset_t pending;
  sigset_t previous;
  ::sigemptyset(&pipe);
  ::sigaddset(&pipe, SIGPIPE);
  ::sigpending(&pending);
  ::pthread_sigmask(SIG_BLOCK, &pipe, &previous);
  const ssize_t written = ::write(descriptor, data, size);
  const int error = errno;
  if (written < 0 && error == EPIPE && ::sigismember(&pending, SIGPIPE) == 0) {
    const timespec at_once{};
    ::sigtimedwait(&pipe, nullptr, &at_once);
  }
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  errno = error;
  return written;
}

}  // namespace

Opened<OutputFile> OutputFile::Open(const std::string& path) {
  const bool in_place = !IsRegularOrMissing(path);
  std::unique_ptr<OutputFile> file(new (std::nothrow) OutputFile(
      path, in_place ? "" : path + "." + std::to_string(::getpid()) + ".part"));
  if (file == nullptr || file->buffer_ == nullptr) {
    return NotOpened<OutputFile>("get memory", ENOMEM);
  }
  if (!file->OpenDescriptor()) {
    const int error = errno;
    file->part_path_.clear();  // another one's, if it is there
    return NotOpened<OutputFile>(in_place ? "open the file" : "create the file", error);
  }
  return {std::move(file)};
}

OutputFile::OutputFile(std::string path, std::string part_path)
    : path_(std::move(path)),
      part_path_(std::move(part_path)),
      buffer_(new (std::nothrow) std::uint8_t[kBufferBytes]) {}

OutputFile::~OutputFile() {
  if (!part_path_.empty()) {
    ::unlink(part_path_.c_str());
  }
}

bool OutputFile::OpenDescriptor() {
  const bool in_place = part_path_.empty();
  const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  descriptor_ = platform::AboveStandard(
      platform::Descriptor(::open(in_place ? path_.c_str() : part_path_.c_str(),
                                  flags | (in_place ? O_TRUNC : O_EXCL), kReadableAndWritable)));
  return descriptor_.IsOpen();
}

int OutputFile::MakeRoom(std::size_t size, const platform::DeadlineWaiter& waiter) {
  if (error_ != 0 || size <= kBufferBytes - end_) {
    return error_;
  }
  return Flush([&waiter] { return waiter.ShouldGiveUp() ? ECANCELED : 0; });
}

std::span<std::uint8_t> OutputFile::Append(std::size_t size) {
  const std::span<std::uint8_t> bytes(&buffer_[end_], size);
  end_ += size;
  return bytes;
}

// `give_up` is asked where there is no room, and gives the error number that ends the wait.
template <typename GiveUp>
int OutputFile::Flush(GiveUp give_up) {
  bool full = false;
  while (begin_ < end_ && error_ == 0) {
    const ssize_t written = WriteWithoutSignal(descriptor_.Get(), &buffer_[begin_], end_ - begin_);
    if (written >= 0) {
      begin_ += static_cast<std::size_t>(written);
      full = false;
    } else if (errno == EAGAIN) {
      waits_ += std::exchange(full, true) ? 0U : 1U;
      if (const int reason = give_up(); reason != 0) {
        std::memmove(&buffer_[0], &buffer_[begin_], end_ - begin_);
        end_ -= std::exchange(begin_, 0);
        return reason;
      }
      pollfd room{descriptor_.Get(), POLLOUT, 0};
      ::poll(&room, 1, kPieceOfWaitMs);
    } else if (errno != EINTR) {
      error_ = errno;
    }
  }
  if (error_ == 0) {
    begin_ = end_ = 0;
  }
  return error_;
}

int OutputFile::Finish() {
  const nanoseconds latest = platform::MonotonicNow() + kPatienceAtTheEnd;
  if (const int error =
          Flush([latest] { return platform::MonotonicNow() < latest ? 0 : ETIMEDOUT; });
      error != 0) {
    error_ = error;
  }
  if (const int error = Close(); error_ == 0) {
    error_ = error;
  }
  if (error_ == 0 && !part_path_.empty()) {
    if (::rename(part_path_.c_str(), path_.c_str()) == 0) {
      part_path_.clear();
    } else {
      error_ = errno;
    }
  }
  return error_;
}

// Some file systems report only here what they could not write. A descriptor is closed whatever
// close(2) says.
int OutputFile::Close() {
  const int descriptor = descriptor_.Release();
  return descriptor < 0 || ::close(descriptor) == 0 || errno == EINTR ? 0 : errno;
}

}  // namespace ipplayout
