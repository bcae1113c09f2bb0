// SPDX-License-Identifier: MIT
#include "platform/debug_output.h"

#include <cstdio>

namespace ipplayout::platform {

void WriteDebugOutput(const char* text) {
  std::fputs(text, stderr);
}

}  // namespace ipplayout::platform
