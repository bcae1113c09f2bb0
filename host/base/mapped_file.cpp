// SPDX-License-Identifier: MIT
#include "host/base/mapped_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ipplay::measure {

Result<std::shared_ptr<const MappedFile>> MappedFile::Open(const std::string& path) {
  const auto failure = [&](const char* why) {
    return UsageFailure(fmt::format("cannot be read: {}", why));
  };
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return failure(std::strerror(errno));
  }
  struct stat status {};
  const bool is_file = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
  void* memory = MAP_FAILED;
  if (is_file) {
    memory =
        ::mmap(nullptr, static_cast<std::size_t>(status.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
  }
  const int error = errno;
  ::close(fd);
  if (!is_file) {
    return failure("not a regular file, or an empty one");
  }
  if (memory == MAP_FAILED) {
    return failure(std::strerror(error));
  }
  const std::span bytes(static_cast<const std::uint8_t*>(memory),
                        static_cast<std::size_t>(status.st_size));
  return std::shared_ptr<const MappedFile>(new MappedFile(bytes));
}

MappedFile::~MappedFile() {
  ::munmap(const_cast<std::uint8_t*>(bytes_.data()), bytes_.size());
}

}  // namespace ipplay::measure
