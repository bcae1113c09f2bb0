// SPDX-License-Identifier: MIT
#include "host/stream/open_input.h"

#include <fmt/format.h>

#include <utility>

#include "host/stream/capture_file.h"

namespace ipplay {

Result<Input> OpenInput(const std::string& name, const InputOptions& options, int stop_fd) {
  if (IsCapture(name)) {
    auto source = CaptureFile::Open(name, options.flow, options.raw, stop_fd);
    if (!source) {
      return source.Error();
    }
    return Input(std::move(*source), name);
  }
  if (options.flow) {
    return UsageFailure(
        fmt::format("--flow needs a pcap or pcapng file as INPUT, and {} is none", name));
  }
  return Input::Open(name, stop_fd);
}

}  // namespace ipplay
