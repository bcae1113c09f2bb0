// SPDX-License-Identifier: MIT
// What a playout reports about itself, as text and as JSON.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "host/play/play_options.h"
#include "host/play/play_plan.h"
#include "host/play/status.h"
#include "host/stream/stream_facts.h"

namespace ipplay {

// "2 h 13 min" is for sentences; this is for columns: "0:12", "2:13:05".
std::string FormatClock(std::chrono::nanoseconds time);
// The same with milliseconds.
std::string FormatMoment(std::chrono::nanoseconds time);

// One line without end: percent, elapsed and remaining time, set and real bit rate, datagrams,
// errors ordered by kind, jitter. What matters least is left out where `columns` are too few.
std::string ProgressLine(const PlayPlan& plan, const Status& status, std::size_t columns);

// Where the frames go, and which way.
std::string WayText(const PlayOptions& options, const PlayPlan& plan, const std::string& device);

// What will be played and how: lines with ends, printed before the start.
std::string Introduction(const PlayOptions& options, const StreamFacts& facts, const PlayPlan& plan,
                         const std::string& device);

// Lines with ends. `outcome` is the first line's beginning, as "Played" or "Stopped by Ctrl-C".
std::string Summary(const PlayOptions& options, const PlayPlan& plan, const Status& status,
                    std::string_view outcome);

// One object in one line, without end: something that happened `at` a time after the start.
std::string EventJson(std::string_view event, std::chrono::nanoseconds at,
                      std::string_view text = {});
// What was done by an order of `by`; `at` is when the first of its datagrams was due.
std::string FaultJson(const IpPlayoutDone& done, ActionKind kind, std::string_view by,
                      std::chrono::nanoseconds at);
// One object in one line, without end. Its "event" is "progress" or "summary"; a summary has an
// "outcome" too.
std::string StatusJson(const PlayOptions& options, const PlayPlan& plan, const Status& status,
                       std::string_view event, std::string_view outcome = {});

// The whole plan for --dry-run: derived values, every setting, and the headers of the first
// datagram, whose payload is given.
std::string DryRun(const PlayOptions& options, const StreamFacts& facts, const PlayPlan& plan,
                   const Path& path, std::span<const std::uint8_t> payload);

}  // namespace ipplay
