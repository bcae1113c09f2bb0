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

// Nothing if the process may open adapters; else what is missing and what to do about it, in one
// line.
std::optional<std::string> MissingRightToSend();

// Gives up all capabilities of the calling thread, and so of the threads that it starts from then
// on, but those that are named here and there.
void KeepCapabilities(std::initializer_list<int> kept);

}  // namespace ipplay
