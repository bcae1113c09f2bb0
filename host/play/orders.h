// SPDX-License-Identifier: MIT
// Actions that damage datagrams, as orders to the library and as words about what was done.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/play/play_values.h"
#include "ipplayout/playouts.h"

namespace ipplay {

// Whether the action is done to datagrams, and not to the whole playout.
bool IsFault(ActionKind kind);

// For the datagrams from `at` on; `number` comes back with the report.
IpPlayoutOrder OrderOf(const Action& action, std::chrono::nanoseconds at, std::uint64_t number);

// "lost 4 datagrams, from number 475 on", of what was done by an order of this kind.
std::string DoneText(const IpPlayoutDone& done, ActionKind kind);

// As in --at: "lose".
std::string_view NameOf(ActionKind kind);
std::optional<ActionKind> ParseFault(std::string_view name);
inline constexpr std::string_view kFaultNames =
    "lose, delay, duplicate, corrupt, bad-ip-checksum, bad-udp-checksum or break";

}  // namespace ipplay
