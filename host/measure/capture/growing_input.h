// SPDX-License-Identifier: MIT
// The bytes of a capture that is still being written, as a file that libpcap reads: a pipe, or a
// capture file that grows. Bytes are handed on as they come, and a request to stop ends a wait.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <utility>
#include <vector>

#include "host/base/file_descriptor.h"

namespace ipplay::measure {

class GrowingInput {
 public:
  enum class Kind { kPipe, kFile };

  GrowingInput(FileDescriptor fd, Kind kind);
  GrowingInput(const GrowingInput&) = delete;
  GrowingInput& operator=(const GrowingInput&) = delete;

  // Reads from here; this object outlives it. Null if there is no memory.
  std::FILE* OpenFile();

  bool HasBytes() const { return taken_ < filled_; }
  // Waits at most `timeout_ms`, or without a limit below 0, for bytes or the end. False if neither
  // has come.
  bool Wait(int timeout_ms);
  // Asked now and then while the rest of a frame is waited for: whether to wait on.
  void WhileWaiting(std::function<bool()> go_on) { go_on_ = std::move(go_on); }
  // The reader wanted more, and was not to wait for it.
  bool WasGivenUp() const { return given_up_; }

 private:
  static ssize_t Read(void* self, char* buffer, std::size_t size);
  void Fill();
  bool WaitForFd(int timeout_ms) const;

  FileDescriptor fd_;
  Kind kind_;
  std::function<bool()> go_on_ = [] { return true; };
  bool ended_ = false;
  bool given_up_ = false;
  std::array<char, 4> file_buffer_{};
  std::vector<char> buffer_;
  std::size_t taken_ = 0;
  std::size_t filled_ = 0;
};

}  // namespace ipplay::measure
