// SPDX-License-Identifier: MIT
#include "host/stream/open_input.h"

#include <fmt/format.h>

#include <utility>

#include "host/stream/capture_file.h"
#include "host/stream/live_source.h"

namespace ipplay {

namespace {

Result<Input> OpenLive(const std::string& name, const InputOptions& options, int stop_fd) {
  const auto address = ParseLiveAddress(name);
  if (!address) {
    return UsageFailure(fmt::format(
        "INPUT: \"{}\" is not valid; give udp:// or rtp:// and [SOURCE@]ADDRESS:PORT, as "
        "rtp://239.1.1.1:5004, with ?interface=NAME for an adapter",
        name));
  }
  auto source = LiveSource::Open(*address, options.silence, stop_fd);
  if (!source) {
    return source.Error();
  }
  return Input(std::move(*source), name);
}

}  // namespace

Result<Input> OpenInput(const std::string& name, const InputOptions& options, int stop_fd) {
  const bool capture = IsCapture(name);
  if (options.flow && !capture) {
    return UsageFailure(
        fmt::format("--flow needs a pcap or pcapng file as INPUT, and {} is none", name));
  }
  if (IsLiveAddress(name)) {
    return OpenLive(name, options, stop_fd);
  }
  if (options.silence) {
    return UsageFailure("--end-after-silence needs an INPUT that goes on: udp:// or rtp://");
  }
  if (!capture) {
    return Input::Open(name, stop_fd);
  }
  auto source = CaptureFile::Open(name, options.flow, options.raw, stop_fd);
  if (!source) {
    return source.Error();
  }
  return Input(std::move(*source), name);
}

}  // namespace ipplay
