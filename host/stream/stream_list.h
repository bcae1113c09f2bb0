// SPDX-License-Identifier: MIT
// Streams that are played in a row as one.
#pragma once

#include <vector>

#include "host/base/result.h"
#include "host/stream/stream_facts.h"

namespace ipplay {

// What they are together. Each needs PCRs, by which it is joined to the next; `without_stamps`
// takes the time stamps of 192-byte packets off, which belong to no common clock.
Result<StreamFacts> FactsOfList(std::vector<ListedStream> list, bool without_stamps);

}  // namespace ipplay
