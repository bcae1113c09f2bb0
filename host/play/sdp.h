// SPDX-License-Identifier: MIT
// A description of the RTP stream that players open (SDP, RFC 8866).
#pragma once

#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/library/path.h"
#include "host/play/play_options.h"
#include "host/play/play_plan.h"

namespace ipplay {

// Of the first copy, by the addresses and the payload type in its headers.
std::string SdpText(const PlayOptions& options, const Path& path);

// Writes it where --sdp says.
std::optional<Failure> WriteSdp(const PlayOptions& options, const std::string& text);

}  // namespace ipplay
