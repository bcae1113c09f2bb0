// SPDX-License-Identifier: MIT
// The bytes to play: a file, a pipe or standard input.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/base/file_descriptor.h"
#include "host/base/result.h"

namespace ipplay {

class Input {
 public:
  // "-" is standard input. No read goes on once `stop_fd` is readable; -1 for none.
  static Result<Input> Open(const std::string& path, int stop_fd);

  // The name for messages.
  const std::string& Name() const { return name_; }
  // Size of a regular file, which can also be read again; nothing for pipes and devices.
  std::optional<std::uint64_t> Size() const { return size_; }

  // Waits for data and returns the number of bytes read; 0 at the end of the data, at a stop and
  // after an error (see ReadError).
  std::size_t Read(std::span<std::uint8_t> buffer);
  // The same, but fills the buffer unless the data ends.
  std::size_t ReadFully(std::span<std::uint8_t> buffer);
  // Puts bytes back; the next reads return them first.
  void Unread(std::vector<std::uint8_t> bytes);
  // Goes to an offset in a regular file.
  void Seek(std::uint64_t offset);
  // Reading ended at a stop.
  bool IsStopped() const { return stopped_; }
  // errno of a read that failed, or 0.
  int ReadError() const { return error_; }

 private:
  Input(FileDescriptor fd, std::string name, int stop_fd);
  bool WaitForData();

  FileDescriptor fd_;
  std::string name_;
  int stop_fd_;
  std::optional<std::uint64_t> size_;
  std::vector<std::uint8_t> unread_;
  std::size_t unread_taken_ = 0;
  int error_ = 0;
  bool stopped_ = false;
};

}  // namespace ipplay
