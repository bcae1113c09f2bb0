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
  // "-" is standard input. `stop_fd` ends a read that waits for a pipe as soon as it is readable;
  // -1 for none.
  static Result<Input> Open(const std::string& path, int stop_fd);

  // The name for messages.
  const std::string& Name() const { return name_; }
  // Size of a regular file, which can also be read again; nothing for pipes and devices.
  std::optional<std::uint64_t> Size() const { return size_; }

  // Reads at least one byte if there is one, waiting for it. The number of bytes; 0 at the end of
  // the data, at a stop and after an error, which error() then tells.
  std::size_t Read(std::span<std::uint8_t> buffer);
  // The same, but fewer bytes than asked for come only at the end.
  std::size_t ReadFully(std::span<std::uint8_t> buffer);
  // Puts bytes back in front of what is read next.
  void Unread(std::vector<std::uint8_t> bytes);
  // Goes to an offset in a regular file.
  void Seek(std::uint64_t offset);
  // errno of a read that failed, or 0.
  int ReadError() const { return error_; }

 private:
  Input(FileDescriptor fd, std::string name, int stop_fd);
  bool WaitForData() const;

  FileDescriptor fd_;
  std::string name_;
  int stop_fd_;
  std::optional<std::uint64_t> size_;
  std::vector<std::uint8_t> unread_;
  std::size_t unread_taken_ = 0;
  int error_ = 0;
};

}  // namespace ipplay
