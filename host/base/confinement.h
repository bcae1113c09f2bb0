// SPDX-License-Identifier: MIT
// Gives up what a process that reads hostile bytes does not need.
#pragma once

#include <initializer_list>
#include <optional>

#include "host/base/result.h"

namespace ipplay {

// For this process and all that it starts: no program that it runs gets rights from its file.
void RefuseNewPrivileges();

// Root becomes the user who called sudo, or else nobody, in no group but that user's; other users
// stay who they are. Gives up every capability but those in `kept` that the process has. Call it
// while there is one thread.
std::optional<Failure> BecomeUnprivileged(std::initializer_list<int> kept);

// From here on any system call that is not needed to take frames from what is open, and to print,
// ends the process (SIGSYS). `files` allows new files to be written, too. Where the kernel has no
// such filter, nothing changes. Calls RefuseNewPrivileges.
enum class NewFiles { kNone, kAllowed };
void AllowReadingFramesOnly(NewFiles files);

// No other process of the same user reads the memory of this one, which leaves no core either.
void HideMemory();

// For a child that becomes a program which reads hostile bytes: from here on it opens no socket,
// writes no file by its name, makes no process and sends no signal; what it tries fails (EPERM).
// False where the kernel has no such filter. Calls RefuseNewPrivileges.
bool DenyReach();

}  // namespace ipplay
