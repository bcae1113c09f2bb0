// SPDX-License-Identifier: MIT
// The streams that the channels of `ipplay demo --serve` play, as files in memory.
#pragma once

#include <optional>

#include "host/base/result.h"

namespace ipplay::measure {

inline constexpr const char* kDemoMediaFolder = "/mnt/demo";

// Makes the folder, with news.ts (4 Mbit/s), sport.ts (8 Mbit/s) and film.ts (6 Mbit/s), of ten
// seconds each. It lies in a file system that no other process sees and that goes with this one,
// which must have a single thread and the rights that DemoNetwork::EnterWhole leaves it.
std::optional<Failure> MakeDemoMedia();

}  // namespace ipplay::measure
