// SPDX-License-Identifier: MIT
// A file, a pipe or a device.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "host/base/readable_file.h"
#include "host/stream/byte_source.h"

namespace ipplay {

class FileSource : public ByteSource {
 public:
  // No read goes on once `stop_fd` is readable; -1 for none.
  FileSource(ReadableFile file, int stop_fd);

  std::optional<std::uint64_t> Size() const override { return size_; }
  std::size_t Read(std::span<std::uint8_t> buffer) override;
  void Seek(std::uint64_t offset) override;
  bool IsStopped() const override { return stopped_; }
  int ReadError() const override { return error_; }

 private:
  bool WaitForData();

  FileDescriptor fd_;
  int stop_fd_;
  std::optional<std::uint64_t> size_;
  int error_ = 0;
  bool stopped_ = false;
};

}  // namespace ipplay
