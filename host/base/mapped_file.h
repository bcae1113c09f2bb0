// SPDX-License-Identifier: MIT
// A file's bytes in memory, read only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "host/base/result.h"

namespace ipplay::measure {

class MappedFile {
 public:
  // Fails unless `path` is a regular file of at least one byte.
  static Result<std::shared_ptr<const MappedFile>> Open(const std::string& path);
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  ~MappedFile();

  std::span<const std::uint8_t> Bytes() const { return bytes_; }

 private:
  explicit MappedFile(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  std::span<const std::uint8_t> bytes_;
};

}  // namespace ipplay::measure
