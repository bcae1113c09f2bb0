// SPDX-License-Identifier: MIT
// The machine that this process runs on: its name, and how far its clock can be trusted.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ipplay {

std::string NameOfMachine();

// The largest error of the system's clock as the kernel estimates it (adjtimex(2)); none where
// nothing keeps the clock right.
std::optional<std::int64_t> LargestClockErrorNs();

}  // namespace ipplay
