#include "host/measure/output_file.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ipplay::measure {

Result<OutputFile> OutputFile::Create(const std::string& path) {
  const auto failure = [&](const char* why) {
    return UsageFailure(fmt::format("cannot write {}: {}", path, why));
  };
  struct stat status {};
  // Nobody's device, and no file behind a link that somebody else has laid.
  if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    return failure("there is something else than a file");
  }
  std::string temporary = path + ".XXXXXX";
  FileDescriptor fd(::mkstemp(temporary.data()));
  if (!fd) return failure(std::strerror(errno));
  return OutputFile(std::move(fd), path, std::move(temporary));
}

OutputFile::~OutputFile() {
  if (fd_ && !temporary_.empty()) ::unlink(temporary_.c_str());
}

bool OutputFile::Commit(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd_.get(), text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  const mode_t mask = ::umask(0);
  ::umask(mask);
  if (::fchmod(fd_.get(), 0644 & ~mask) != 0) return false;
  if (std::rename(temporary_.c_str(), path_.c_str()) != 0) return false;
  temporary_.clear();
  return true;
}

}  // namespace ipplay::measure
