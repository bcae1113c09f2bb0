// SPDX-License-Identifier: MIT
// Sole owner of a file descriptor.
#pragma once

#include <utility>

namespace ipplayout::platform {

class Descriptor {
 public:
  explicit Descriptor(int value = -1) : value_(value) {}
  Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(value_, other.value_);
    return *this;
  }
  ~Descriptor();

  int Get() const { return value_; }
  bool IsOpen() const { return value_ >= 0; }

 private:
  int value_;
};

}  // namespace ipplayout::platform
