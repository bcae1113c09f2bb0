// SPDX-License-Identifier: MIT
// What the system still grants this process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace ipplay {

// 0 if `count` more sockets can be opened at once, otherwise the error number.
int ErrorOfSockets(std::size_t count);
bool CanStartThread();
// Bytes of address space, where they are limited (RLIMIT_AS).
std::optional<std::uint64_t> MemoryLimit();

}  // namespace ipplay
