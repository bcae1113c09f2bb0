// SPDX-License-Identifier: MIT
// The rights that a process needs to send frames.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace ipplay {

// What to do where the named capabilities are missing. Never says how to give them to a program
// that looks for libraries by itself.
std::string HowToGetRights(std::string_view capabilities);

// None if the process may open adapters; otherwise one line with what is missing and what to do.
std::optional<std::string> MissingRightToSend();

// Numbers of capabilities, as linux/capability.h has them.
inline constexpr int kCapChown = 0;
inline constexpr int kCapDacOverride = 1;
inline constexpr int kCapFowner = 3;
inline constexpr int kCapKill = 5;
inline constexpr int kCapNetRaw = 13;
inline constexpr int kCapSysNice = 23;

// Drops all capabilities of the calling thread, and so of the threads that it starts later, except
// those in `kept` that it has.
void KeepCapabilities(std::initializer_list<int> kept);

}  // namespace ipplay
