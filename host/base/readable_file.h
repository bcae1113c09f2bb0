// SPDX-License-Identifier: MIT
// A file, pipe or device opened for reading.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/base/file_descriptor.h"

namespace ipplay {

struct ReadableFile {
  FileDescriptor fd;  // not open on failure, with errno set
  bool is_folder = false;
  std::optional<std::uint64_t> size;  // of a regular file, which is at its start
};

// "-" is standard input.
ReadableFile OpenForReading(const std::string& path);

}  // namespace ipplay
