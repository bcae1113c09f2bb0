// SPDX-License-Identifier: MIT
// A file that must stay as it is while it is read, anywhere in it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/base/file_descriptor.h"
#include "host/base/result.h"

namespace ipplay {

// Reads parts of the file into windows; nothing of it is mapped, so that a file which shrinks is an
// error and no signal. Used by one thread.
class SteadyFile {
 public:
  // Fails unless `path` is a regular file of at least one byte.
  static Result<std::shared_ptr<SteadyFile>> Open(const std::string& path);

  std::uint64_t Size() const { return size_; }
  // Some bytes from `offset` on, which is less than Size(): one at least, until the next call but
  // seven. None once the file could not be read, or has changed since it was opened.
  std::span<const std::uint8_t> View(std::uint64_t offset);
  // Why there are none; empty while there are.
  const std::string& Error() const { return error_; }

 private:
  static constexpr std::size_t kWindows = 8;
  static constexpr std::size_t kWindowBytes = 16 * 1024;

  struct Window {
    std::uint64_t offset = 0;
    std::uint64_t last_used = 0;
    std::vector<std::uint8_t> bytes;
  };
  // What changes with the content.
  struct State {
    std::int64_t size = 0;
    std::int64_t changed_s = 0;
    std::int64_t changed_ns = 0;
    bool operator==(const State&) const = default;
  };

  explicit SteadyFile(FileDescriptor fd) : fd_(std::move(fd)) {}
  static Result<State> StateOf(const FileDescriptor& fd);
  bool Fill(Window& window, std::uint64_t offset);

  FileDescriptor fd_;
  std::uint64_t size_ = 0;
  State state_;
  std::array<Window, kWindows> windows_;
  std::uint64_t uses_ = 0;
  std::string error_;
};

}  // namespace ipplay
