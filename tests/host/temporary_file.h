// SPDX-License-Identifier: MIT
// A file that lives as long as the object.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>

namespace ipplay {

class TemporaryFile {
 public:
  explicit TemporaryFile(std::span<const std::uint8_t> content) {
    const int fd = mkstemp(path_.data());
    if (fd < 0 ||
        write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
      throw std::runtime_error("cannot write " + path_);
    }
    close(fd);
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() { unlink(path_.c_str()); }

  const std::string& path() const { return path_; }

 private:
  std::string path_ = "/tmp/ipplay-test-XXXXXX";
};

}  // namespace ipplay
