// SPDX-License-Identifier: MIT
// Why the library has refused to start. It gives no reason, so what a start takes is tried one by
// one.
#pragma once

#include <cstdint>
#include <string>

namespace ipplay {

// Right after the refusal, before what it built is released.
std::string WhyNotStarted(std::uint32_t device_index);

}  // namespace ipplay
