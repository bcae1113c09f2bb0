// SPDX-License-Identifier: MIT
#include "host/base/steady_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ipplay {

Result<SteadyFile::State> SteadyFile::StateOf(const FileDescriptor& fd) {
  struct stat status {};
  if (::fstat(fd.Get(), &status) != 0) {
    return UsageFailure(std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode) || status.st_size == 0) {
    return UsageFailure("not a regular file, or an empty one");
  }
  return State{status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

Result<std::shared_ptr<SteadyFile>> SteadyFile::Open(const std::string& path) {
  // A FIFO is refused and not waited for.
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  const auto state = fd.IsOpen() ? StateOf(fd) : Result<State>(UsageFailure(std::strerror(errno)));
  if (!state) {
    return UsageFailure(fmt::format("cannot be read: {}", state.Error().message));
  }
  std::shared_ptr<SteadyFile> file(new SteadyFile(std::move(fd)));
  file->state_ = *state;
  file->size_ = static_cast<std::uint64_t>(state->size);
  return file;
}

std::span<const std::uint8_t> SteadyFile::View(std::uint64_t offset) {
  if (!error_.empty()) {
    return {};
  }
  const auto holds = [offset](const Window& window) {
    return offset >= window.offset && offset - window.offset < window.bytes.size();
  };
  auto window = std::ranges::find_if(windows_, holds);
  if (window == windows_.end()) {
    window = std::ranges::min_element(windows_, {}, &Window::last_used);
    if (!Fill(*window, offset)) {
      return {};
    }
  }
  window->last_used = ++uses_;
  return std::span(window->bytes).subspan(offset - window->offset);
}

bool SteadyFile::Fill(Window& window, std::uint64_t offset) {
  window.offset = offset;
  window.bytes.resize(std::min<std::uint64_t>(kWindowBytes, size_ - offset));
  std::size_t filled = 0;
  while (filled < window.bytes.size()) {
    const ssize_t length =
        ::pread(fd_.Get(), window.bytes.data() + filled, window.bytes.size() - filled,
                static_cast<off_t>(offset + filled));
    if (length < 0 && errno == EINTR) {
      continue;
    }
    if (length <= 0) {
      error_ = length < 0 ? std::strerror(errno) : "the file has become shorter meanwhile";
      return false;
    }
    filled += static_cast<std::size_t>(length);
  }
  const auto state = StateOf(fd_);
  if (!state || *state != state_) {
    error_ = "the file has changed meanwhile";
    return false;
  }
  return true;
}

}  // namespace ipplay
