// SPDX-License-Identifier: MIT
// Opens what a user names as an input.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "host/base/address.h"
#include "host/base/result.h"
#include "host/stream/input.h"

namespace ipplay {

struct InputOptions {
  bool raw = false;                                   // without transport packets
  std::optional<Endpoint> flow{};                     // of a capture
  bool follow = false;                                // a file grows
  std::optional<std::chrono::nanoseconds> silence{};  // ends a live input or a growing file
};

// What is wrong with a name that no file has, as udp:// without a port.
std::optional<Failure> CheckLiveInput(const std::string& name);

// A file, a pcap or pcapng file, a LiveAddress, "-" for standard input. No read goes on once
// `stop_fd` is readable; -1 for none.
Result<Input> OpenInput(const std::string& name, const InputOptions& options, int stop_fd);

// A file with the stream itself only, or "-".
Result<Input> OpenFile(const std::string& name, const InputOptions& options, int stop_fd);

}  // namespace ipplay
