// SPDX-License-Identifier: MIT
// A capture that is played at the times at which its datagrams came.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/play/plan_sizes.h"
#include "host/play/play_options.h"
#include "host/stream/packet_format.h"
#include "host/stream/stream_facts.h"
#include "ipplayout/playouts.h"

namespace ipplay {

// Options that need one, or exclude it.
std::optional<Failure> CheckCapture(const PlayOptions& options, const StreamFacts& facts);

// Transport packets in each of its datagrams, where they are alike and the user orders no size.
std::optional<std::uint32_t> CapturedPackets(const PlayOptions& options, const StreamFacts& facts);

// Packets a second, on average; nothing where all came at one time.
std::optional<double> CapturedPacketRate(const StreamFacts& facts);

// Holes need datagrams as in the capture.
std::optional<Failure> CheckHoles(const PlayOptions& options, const StreamFacts& facts,
                                  PacketFormat format, const Sizes& sizes);

// Marks and orders have room for what is written ahead.
void LimitAhead(const PlayOptions& options, const StreamFacts& facts, IpPlayoutSettings& schedule);

void NoteCapture(const PlayOptions& options, const StreamFacts& facts,
                 std::vector<std::string>& notes);

}  // namespace ipplay
