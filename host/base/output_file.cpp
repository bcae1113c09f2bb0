// SPDX-License-Identifier: MIT
#include "host/base/output_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host/base/library_output.h"
#include "host/base/numbers.h"

namespace ipplay {
namespace {

// The descriptor that "/dev/stdout" and the like stand for.
std::optional<int> DescriptorOf(std::string_view path) {
  if (path == "/dev/stdout") {
    return STDOUT_FILENO;
  }
  if (path == "/dev/stderr") {
    return STDERR_FILENO;
  }
  for (const std::string_view folder : {"/dev/fd/", "/proc/self/fd/"}) {
    if (!path.starts_with(folder)) {
      continue;
    }
    if (const auto number = ParseNumber(path.substr(folder.size()), 0, INT32_MAX)) {
      return static_cast<int>(*number);
    }
  }
  return std::nullopt;
}

constexpr const char* kNotOurs =
    "a configuration file names it, and it is another kind of file; name it on the command line "
    "to replace it";

// 0, or the errno of what failed.
int WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return written < 0 ? errno : EIO;
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

}  // namespace

OutputFile::OutputFile(std::string option, std::string path, std::string_view only_over)
    : option_(std::move(option)),
      path_(std::move(path)),
      only_over_(only_over),
      owner_(::geteuid()),
      group_(::getegid()) {}

Failure OutputFile::Refusal(ExitStatus status, std::string_view why) const {
  return {status, fmt::format("{} {}: cannot be written: {}", option_, path_, why)};
}

Result<OutputFile> OutputFile::Create(const std::string& option, const std::string& path,
                                      std::string_view only_over) {
  OutputFile file(option, path, only_over);
  if (auto failure = file.Prepare()) {
    return *std::move(failure);
  }
  return file;
}

std::optional<Failure> OutputFile::Prepare() {
  const auto refuse = [this](std::string_view why) { return Refusal(ExitStatus::kUsage, why); };
  if (const auto descriptor = DescriptorOf(path_)) {
    // Descriptor 1 is the library's; the user's is another one.
    const int fd = *descriptor == STDOUT_FILENO ? fileno(Results()) : *descriptor;
    special_ = FileDescriptor(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
    if (!special_.IsOpen()) {
      return refuse(std::strerror(errno));
    }
    return std::nullopt;
  }
  const std::size_t slash = path_.rfind('/');
  name_ = slash == std::string::npos ? path_ : path_.substr(slash + 1);
  const std::string folder = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
  folder_ = FileDescriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder_.IsOpen()) {
    return refuse(std::strerror(errno));
  }
  struct stat status {};
  if (::fstatat(folder_.Get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    if (S_ISLNK(status.st_mode)) {
      return refuse("it is a link; give a file");
    }
    if (!MayReplace()) {
      return refuse(kNotOurs);
    }
    if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
      return OpenSpecial(status.st_uid);
    }
    if (!S_ISREG(status.st_mode)) {
      return refuse("not a regular file; give a file");
    }
    mode_ &= status.st_mode;
  } else if (errno != ENOENT || name_.empty()) {
    return refuse(name_.empty() ? "it is a folder; give a file" : std::strerror(errno));
  }
  std::string temporary;
  if (!CreateTemporary(temporary).IsOpen()) {
    return refuse(std::strerror(errno));
  }
  ::unlinkat(folder_.Get(), temporary.c_str(), 0);
  return std::nullopt;
}

bool OutputFile::MayReplace() const {
  if (only_over_.empty()) {
    return true;
  }
  const FileDescriptor fd(
      ::openat(folder_.Get(), name_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.IsOpen()) {
    return errno == ENOENT;
  }
  std::string start(only_over_.size(), '\0');
  return ::pread(fd.Get(), start.data(), start.size(), 0) == static_cast<ssize_t>(start.size()) &&
         start == only_over_;
}

// Anybody can put a FIFO into a shared folder and wait for data.
std::optional<Failure> OutputFile::OpenSpecial(unsigned owner) {
  if (owner != ::geteuid() && owner != 0) {
    return Refusal(ExitStatus::kUsage, "the FIFO or device is another user's; give a file");
  }
  special_ = FileDescriptor(
      ::openat(folder_.Get(), name_.c_str(), O_WRONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
  if (!special_.IsOpen()) {
    return Refusal(ExitStatus::kUsage, std::strerror(errno));
  }
  return std::nullopt;
}

FileDescriptor OutputFile::CreateTemporary(std::string& name) const {
  std::uint64_t random = 0;
  if (getrandom(&random, sizeof random, 0) != sizeof random) {
    return {};
  }
  name = fmt::format(".ipplay-{:016x}", random);
  return FileDescriptor(::openat(folder_.Get(), name.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode_));
}

std::optional<Failure> OutputFile::Commit(std::string_view text) const {
  const auto fail = [this](int error) {
    return Refusal(ExitStatus::kFailed, std::strerror(error));
  };
  if (special_.IsOpen()) {
    std::fflush(Results());
    const int error = WriteAll(special_.Get(), text);
    return error == 0 ? std::nullopt : std::optional(fail(error));
  }
  if (!MayReplace()) {
    return Refusal(ExitStatus::kFailed, kNotOurs);
  }
  std::string temporary;
  const FileDescriptor fd = CreateTemporary(temporary);
  if (!fd.IsOpen()) {
    return fail(errno);
  }
  int error = WriteAll(fd.Get(), text);
  if (error == 0 && owner_ != ::geteuid() && ::fchown(fd.Get(), owner_, group_) != 0) {
    error = errno;
  }
  // A full or remote disk may report the failure only now.
  if (error == 0 && ::fsync(fd.Get()) != 0) {
    error = errno;
  }
  if (error == 0 &&
      ::renameat(folder_.Get(), temporary.c_str(), folder_.Get(), name_.c_str()) != 0) {
    error = errno;
  }
  if (error == 0) {
    return std::nullopt;
  }
  ::unlinkat(folder_.Get(), temporary.c_str(), 0);
  return fail(error);
}

Result<FileDescriptor> OutputFile::Open() const {
  const auto fail = [this](int error) { return Refusal(ExitStatus::kUsage, std::strerror(error)); };
  if (special_.IsOpen()) {
    std::fflush(Results());
    FileDescriptor fd(::fcntl(special_.Get(), F_DUPFD_CLOEXEC, 3));
    return fd.IsOpen() ? Result(std::move(fd)) : fail(errno);
  }
  std::string temporary;
  FileDescriptor fd = CreateTemporary(temporary);
  if (!fd.IsOpen()) {
    return fail(errno);
  }
  if (::renameat(folder_.Get(), temporary.c_str(), folder_.Get(), name_.c_str()) != 0) {
    const int error = errno;
    ::unlinkat(folder_.Get(), temporary.c_str(), 0);
    return fail(error);
  }
  return fd;
}

std::optional<Failure> OutputFile::Append(const FileDescriptor& fd, std::string_view text) const {
  const int error = WriteAll(fd.Get(), text);
  return error == 0 ? std::nullopt
                    : std::optional(Refusal(ExitStatus::kFailed, std::strerror(error)));
}

}  // namespace ipplay
