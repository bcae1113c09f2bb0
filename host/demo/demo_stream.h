// SPDX-License-Identifier: MIT
// The transport stream that the demo plays by default.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace ipplay::measure {

// One programme at a constant bit rate: PAT and PMT every 100 ms, a clock and a time-stamped PES
// packet every 20 ms, null packets, and content in which no two packets are alike.
std::vector<std::uint8_t> MakeDemoStream(double bit_rate, std::chrono::nanoseconds length);

}  // namespace ipplay::measure
