// SPDX-License-Identifier: MIT
#include "host/measure/capture/growing_input.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "host/base/stop_signals.h"

namespace ipplay::measure {
namespace {

constexpr std::size_t kBufferBytes = 256 * 1024;
// A file does not say that it has grown.
constexpr int kLookAgainMs = 50;

}  // namespace

GrowingInput::GrowingInput(FileDescriptor fd, Kind kind)
    : fd_(std::move(fd)), kind_(kind), buffer_(kBufferBytes) {}

std::FILE* GrowingInput::OpenFile() {
  std::FILE* const file = ::fopencookie(
      this, "r",
      {.read = &GrowingInput::Read, .write = nullptr, .seek = nullptr, .close = nullptr});
  if (file != nullptr) {
    // Read ahead here, where the amount is known. Without any buffer the C library
    // would ask for one byte at a time; no read of libpcap's is shorter than this one.
    std::setvbuf(file, file_buffer_.data(), _IOFBF, file_buffer_.size());
  }
  return file;
}

// The bytes come first, so that what was written before the stop is read.
ssize_t GrowingInput::Read(void* self, char* buffer, std::size_t size) {
  GrowingInput& input = *static_cast<GrowingInput*>(self);
  const bool stopping = StopSignals::Came() != 0;
  while (!input.Wait(stopping ? 0 : kLookAgainMs)) {
    if (StopSignals::Came() != 0 || !input.go_on_()) {
      input.given_up_ = true;
      return 0;
    }
  }
  const std::size_t length = std::min(size, input.filled_ - input.taken_);
  std::memcpy(buffer, input.buffer_.data() + input.taken_, length);
  input.taken_ += length;
  return static_cast<ssize_t>(length);
}

bool GrowingInput::Wait(int timeout_ms) {
  if (HasBytes() || ended_) {
    return true;
  }
  if (kind_ == Kind::kFile) {
    Fill();
    if (!HasBytes()) {
      pollfd stop{StopSignals::Fd(), POLLIN, 0};
      ::poll(&stop, 1, std::min(timeout_ms, kLookAgainMs));
      Fill();
    }
  } else if (WaitForFd(timeout_ms)) {
    Fill();
  }
  return HasBytes() || ended_;
}

bool GrowingInput::WaitForFd(int timeout_ms) const {
  std::array<pollfd, 2> waits{{{fd_.Get(), POLLIN, 0}, {StopSignals::Fd(), POLLIN, 0}}};
  // After the stop its event stays readable, and would end each wait.
  const nfds_t count = timeout_ms == 0 ? 1 : waits.size();
  return ::poll(waits.data(), count, timeout_ms) > 0 && waits[0].revents != 0;
}

void GrowingInput::Fill() {
  const ssize_t length = ::read(fd_.Get(), buffer_.data(), buffer_.size());
  if (length > 0) {
    taken_ = 0;
    filled_ = static_cast<std::size_t>(length);
  } else if ((length == 0 && kind_ == Kind::kPipe) ||
             (length < 0 && errno != EINTR && errno != EAGAIN)) {
    ended_ = true;
  }
}

}  // namespace ipplay::measure
