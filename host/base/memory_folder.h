// SPDX-License-Identifier: MIT
// A folder in memory that no other process sees, and that goes with this one, however it ends.
#pragma once

#include <string>

#include "host/base/file_descriptor.h"

namespace ipplay {

// Mounts a file system in memory over the folder `mount_point`, for this process alone, and makes
// `folder` in it, which everybody may read. It takes the right to mount and a single thread. False
// on failure, with errno.
bool MakeMemoryFolder(const char* mount_point, const char* folder);
// A new file to write, which everybody may read, whatever the umask. Not open on failure.
FileDescriptor CreateReadableFile(const std::string& path);

}  // namespace ipplay
