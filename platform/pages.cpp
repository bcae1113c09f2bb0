// SPDX-License-Identifier: MIT
#include "platform/pages.h"

#include <sys/mman.h>

namespace ipplayout::platform {

Pages::Pages(std::size_t size) : data_(nullptr), size_(size) {
  if (size == 0) {
    return;
  }
  void* block = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block != MAP_FAILED) {
    data_ = static_cast<std::uint8_t*>(block);
  }
}

Pages::~Pages() {
  if (data_ != nullptr) {
    ::munmap(data_, size_);
  }
}

}  // namespace ipplayout::platform
