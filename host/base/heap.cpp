// SPDX-License-Identifier: MIT
#include "host/base/heap.h"

#ifdef IPPLAY_SANITIZED
#include <cstddef>

// Of the sanitizers' runtime. GCC comes without the header that has it.
extern "C" std::size_t
__sanitizer_get_current_allocated_bytes();  // NOLINT(bugprone-reserved-identifier)
#else
#include <malloc.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#endif

#ifdef IPPLAY_SANITIZED

// The sanitizers have operators of their own, and they count.
std::int64_t ipplay::HeapBytes() {
  return static_cast<std::int64_t>(__sanitizer_get_current_allocated_bytes());
}

#else

namespace {

thread_local std::int64_t held = 0;

// Each block has its length in front of it.
constexpr std::int64_t kOfBlock = sizeof(std::size_t);

void* Counted(void* block) {
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  held += static_cast<std::int64_t>(::malloc_usable_size(block)) + kOfBlock;
  return block;
}

void Free(void* block) {
  if (block != nullptr) {
    held -= static_cast<std::int64_t>(::malloc_usable_size(block)) + kOfBlock;
    std::free(block);
  }
}

void* AlignedBlock(std::size_t size, std::size_t alignment) {
  return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}

}  // namespace

std::int64_t ipplay::HeapBytes() {
  return held;
}

// All other forms of new and delete come down to these.
void* operator new(std::size_t size) {
  return Counted(std::malloc(size == 0 ? 1 : size));
}

void* operator new(std::size_t size, std::align_val_t alignment) {
  return Counted(AlignedBlock(size == 0 ? 1 : size, static_cast<std::size_t>(alignment)));
}

void operator delete(void* block) noexcept {
  Free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
  Free(block);
}

void operator delete(void* block, std::align_val_t /*alignment*/) noexcept {
  Free(block);
}

void operator delete(void* block, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  Free(block);
}

#endif
