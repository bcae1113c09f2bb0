// SPDX-License-Identifier: MIT
#include "host/base/memory_file.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ipplay {

FileDescriptor CreateMemoryFile(const char* name, OnExec on_exec) {
  return FileDescriptor(::memfd_create(name, on_exec == OnExec::kClose ? MFD_CLOEXEC : 0));
}

bool WriteAll(const FileDescriptor& file, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file.Get(), bytes.data(), bytes.size());
    if (written <= 0) {
      return false;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return true;
}

std::string ReadWhole(const FileDescriptor& file) {
  struct stat status {};
  if (::fstat(file.Get(), &status) != 0) {
    return {};
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  const ssize_t size = ::pread(file.Get(), text.data(), text.size(), 0);
  text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return text;
}

}  // namespace ipplay
