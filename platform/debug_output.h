// SPDX-License-Identifier: MIT
// Messages for whoever debugs a host, on standard error.
#pragma once

namespace ipplayout::platform {

// As it stands, without a line end of its own.
void WriteDebugOutput(const char* text);

}  // namespace ipplayout::platform
