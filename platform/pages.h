// SPDX-License-Identifier: MIT
// Memory straight from the system's page allocator.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ipplayout::platform {

// A block of zeroed, readable and writable pages, returned by the destructor.
class Pages {
 public:
  // When the system finds the memory. The first touch of a page that comes later takes
  // microseconds.
  enum class When { kAsUsed, kAtOnce };

  explicit Pages(std::size_t size, When when = When::kAsUsed);
  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;
  ~Pages();

  // Null when the system had no memory to give.
  std::uint8_t* Data() const { return data_; }
  std::size_t Size() const { return data_ == nullptr ? 0 : size_; }

 private:
  std::uint8_t* data_;
  std::size_t size_;
};

}  // namespace ipplayout::platform
