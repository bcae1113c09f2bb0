// SPDX-License-Identifier: MIT
// Sole owner of a file descriptor.
#pragma once

#include <array>
#include <chrono>
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
  // Gives the descriptor away, to be closed by whoever takes it.
  int Release() { return std::exchange(value_, -1); }

 private:
  int value_;
};

// The same file under a number above those of standard input, output and error: where a host has
// closed one of these, what it prints would else be sent out of the adapter. Not open when there is
// no descriptor left.
Descriptor AboveStandard(Descriptor descriptor);

// While it lives, what a library opens by itself gets such a number.
class StandardNumbersTaken {
 public:
  StandardNumbersTaken();

 private:
  std::array<Descriptor, 3> taken_;
};

// False when `deadline` on the monotonic clock passed first. Signals do not end the wait.
bool WaitUntilReadable(int descriptor, std::chrono::nanoseconds deadline);

}  // namespace ipplayout::platform
