// SPDX-License-Identifier: MIT
// The playout that the programs of the yardstick run.
#pragma once

// Sets up RTP over IPv4 to 239.1.2.3:5004 in frames of 1,370 bytes; `copies` streams to consecutive
// groups. False, with a message, when there is no such adapter.
bool ConfigurePlayout(const char* device, double megabits, int copies);

// One of burst=DATAGRAMS and jitter=PATTERN:PERIOD; false when it is neither.
bool ApplyTiming(const char* text);
