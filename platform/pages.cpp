// SPDX-License-Identifier: MIT
#include "platform/pages.h"

#include <sys/mman.h>

namespace ipplayout::platform {

Pages::Pages(std::size_t size, When when) : data_(nullptr), size_(size) {
  if (size == 0) {
    return;
  }
  const int flags = MAP_PRIVATE | MAP_ANONYMOUS | (when == When::kAtOnce ? MAP_POPULATE : 0);
  void* block = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, -1, 0);
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
