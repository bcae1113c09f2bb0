// SPDX-License-Identifier: MIT
// A folder of a test's own, removed with what is in it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace ipplayout {

class OwnFolder {
 public:
  OwnFolder() {
    char name[] = "/tmp/ipplayout_test_XXXXXX";
    path_ = ::mkdtemp(name);
  }
  OwnFolder(const OwnFolder&) = delete;
  OwnFolder& operator=(const OwnFolder&) = delete;
  ~OwnFolder() { std::filesystem::remove_all(path_); }

  std::string File(const std::string& name) const { return path_ / name; }
  std::size_t Entries() const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(path_), {}));
  }

 private:
  std::filesystem::path path_;
};

inline std::string ContentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace ipplayout
