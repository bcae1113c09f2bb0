// SPDX-License-Identifier: MIT
#include "host/base/memory_folder.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace ipplay {
namespace {

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kFileMode = 0644;

}  // namespace

bool MakeMemoryFolder(const char* mount_point, const char* folder) {
  constexpr unsigned long kFlags = MS_NOSUID | MS_NODEV | MS_NOEXEC;
  return ::unshare(CLONE_NEWNS) == 0 &&
         // What is mounted from here on is this process's alone.
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("tmpfs", mount_point, "tmpfs", kFlags, "mode=0755") == 0 &&
         ::mkdir(folder, kFolderMode) == 0 && ::chmod(folder, kFolderMode) == 0;
}

FileDescriptor CreateReadableFile(const std::string& path) {
  FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
  if (file.IsOpen() && ::fchmod(file.Get(), kFileMode) != 0) {
    return FileDescriptor();
  }
  return file;
}

}  // namespace ipplay
