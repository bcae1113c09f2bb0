// SPDX-License-Identifier: MIT
// How much memory the calling thread has taken and not given back.
#pragma once

#include <cstdint>

namespace ipplay {

// Bytes of all objects that this thread has made less those that it has destroyed, with what the
// allocator adds to each. In a build with sanitizers, those of all threads.
std::int64_t HeapBytes();

}  // namespace ipplay
