// SPDX-License-Identifier: MIT
#include "host/base/library_output.h"

#include <fcntl.h>
#include <poll.h>

#include <cerrno>

namespace ipplay {

std::FILE* Results() {
  static std::FILE* const results = [] {
    std::fflush(stdout);
    const int fd = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    std::FILE* file = fd < 0 ? nullptr : ::fdopen(fd, "w");
    if (file == nullptr) {
      return stdout;
    }
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    return file;
  }();
  return results;
}

ResultsFate FateOfResults() {
  std::FILE* const results = Results();
  if (std::fflush(results) == 0 && std::ferror(results) == 0) {
    return ResultsFate::kWritten;
  }
  const int fd = fileno(results);
  if (errno == EIO || ::isatty(fd) == 1) {
    return ResultsFate::kWritten;
  }
  pollfd pipe{fd, POLLOUT, 0};
  const bool has_no_reader = ::poll(&pipe, 1, 0) == 1 && (pipe.revents & POLLERR) != 0;
  return has_no_reader ? ResultsFate::kUnread : ResultsFate::kLost;
}

LibrarySilence::LibrarySilence(Of what) {
  std::fflush(stdout);
  const FileDescriptor nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  if (!nowhere.IsOpen()) {
    return;
  }
  saved_output_ = FileDescriptor(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
  if (saved_output_.IsOpen()) {
    ::dup2(nowhere.Get(), STDOUT_FILENO);
  }
  if (what == Of::kOutput) {
    return;
  }
  saved_errors_ = FileDescriptor(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
  if (saved_errors_.IsOpen()) {
    ::dup2(nowhere.Get(), STDERR_FILENO);
  }
}

LibrarySilence::~LibrarySilence() {
  std::fflush(stdout);
  if (saved_output_.IsOpen()) {
    ::dup2(saved_output_.Get(), STDOUT_FILENO);
  }
  if (saved_errors_.IsOpen()) {
    ::dup2(saved_errors_.Get(), STDERR_FILENO);
  }
}

}  // namespace ipplay
