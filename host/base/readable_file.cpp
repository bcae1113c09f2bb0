// SPDX-License-Identifier: MIT
#include "host/base/readable_file.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace ipplay {

namespace {

// A FIFO opens at once, and not only when somebody writes into it: that is waited for where a stop
// is noticed.
FileDescriptor Open(const std::string& path) {
  if (path == "-") {
    return FileDescriptor(::dup(STDIN_FILENO));
  }
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.IsOpen()) {
    ::fcntl(fd.Get(), F_SETFL, ::fcntl(fd.Get(), F_GETFL) & ~O_NONBLOCK);
  }
  return fd;
}

}  // namespace

ReadableFile OpenForReading(const std::string& path) {
  ReadableFile file{Open(path), false, {}};
  struct stat status {};
  if (!file.fd.IsOpen() || ::fstat(file.fd.Get(), &status) != 0) {
    return {};
  }
  file.is_folder = S_ISDIR(status.st_mode);
  // Standard input may be a file that another process has read in part.
  if (S_ISREG(status.st_mode) && ::lseek(file.fd.Get(), 0, SEEK_SET) == 0) {
    file.size = static_cast<std::uint64_t>(status.st_size);
    ::posix_fadvise(file.fd.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  }
  return file;
}

}  // namespace ipplay
