// SPDX-License-Identifier: MIT
// Dated lines on standard output and, where one is set, in a trace file.
#pragma once

#include <cstdio>

namespace ipplayout {

// The two switches. The library itself changes neither: every line goes to standard output only.
extern std::FILE* OsaTraceFile;
extern bool OsaTraceSilent;

// Writes "mm/dd/yy hh:mm:ss message" and a newline. Returns the characters of the message, 0 when
// there is nowhere to write. Takes no lock: lines of different threads may interleave.
[[gnu::format(printf, 1, 2)]] int OsaTrace(const char* format, ...);

}  // namespace ipplayout
