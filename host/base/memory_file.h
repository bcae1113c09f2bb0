// SPDX-License-Identifier: MIT
// Files without a name, in memory.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "host/base/file_descriptor.h"

namespace ipplay {

enum class OnExec { kClose, kKeep };

// Not open on failure. `name` is for people who look into /proc.
FileDescriptor CreateMemoryFile(const char* name, OnExec on_exec);
// False if the memory does not suffice, or the file is not open.
bool WriteAll(const FileDescriptor& file, std::span<const std::uint8_t> bytes);
// Everything from the file's start; empty on failure.
std::string ReadWhole(const FileDescriptor& file);

}  // namespace ipplay
