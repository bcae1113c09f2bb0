// SPDX-License-Identifier: MIT
// What systemd is told about a service (sd_notify(3)). Its protocol is one datagram, so that the
// program needs no library for it.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace ipplay {

// "READY=1", "STOPPING=1", "WATCHDOG=1", "STATUS=..."; nothing outside a service.
void NotifyServiceManager(std::string_view state);

// How often "WATCHDOG=1" is to be sent: half the time after which systemd takes the service for
// hung. None without a watchdog.
std::optional<std::chrono::microseconds> WatchdogInterval();

}  // namespace ipplay
