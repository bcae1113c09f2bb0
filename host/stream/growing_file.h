// SPDX-License-Identifier: MIT
// A file that somebody else is still writing: at its end more is waited for.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>

#include "host/base/file_descriptor.h"
#include "host/stream/byte_source.h"

namespace ipplay {

class GrowingFile : public ByteSource {
 public:
  // Ends once nothing has been added for `silence`; nothing for never. No read goes on once
  // `stop_fd` is readable; -1 for none.
  GrowingFile(FileDescriptor fd, std::optional<std::chrono::nanoseconds> silence, int stop_fd)
      : fd_(std::move(fd)), silence_(silence), stop_fd_(stop_fd) {}

  std::size_t Read(std::span<std::uint8_t> buffer) override;
  bool IsStopped() const override { return stopped_; }
  int ReadError() const override { return error_; }

 private:
  FileDescriptor fd_;
  std::optional<std::chrono::nanoseconds> silence_;
  int stop_fd_;
  bool stopped_ = false;
  int error_ = 0;
};

}  // namespace ipplay
