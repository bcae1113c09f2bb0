// SPDX-License-Identifier: MIT
#include "host/stream/open_input.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "host/base/readable_file.h"
#include "host/stream/capture_file.h"
#include "host/stream/file_source.h"
#include "host/stream/growing_file.h"
#include "host/stream/live_source.h"

namespace ipplay {

namespace {

Result<Input> OpenLive(const std::string& name, const InputOptions& options, int stop_fd) {
  if (auto failure = CheckLiveInput(name)) {
    return *std::move(failure);
  }
  auto source = LiveSource::Open(*ParseLiveAddress(name), options.silence, stop_fd);
  if (!source) {
    return source.Error();
  }
  return Input(std::move(*source), name);
}

}  // namespace

std::optional<Failure> CheckLiveInput(const std::string& name) {
  if (!IsLiveAddress(name) || ParseLiveAddress(name)) {
    return std::nullopt;
  }
  return UsageFailure(
      fmt::format("INPUT: \"{}\" is not valid; give udp:// or rtp:// and [SOURCE@]ADDRESS:PORT, as "
                  "rtp://239.1.1.1:5004, with ?interface=NAME for an adapter",
                  name));
}

Result<Input> OpenFile(const std::string& name, const InputOptions& options, int stop_fd) {
  ReadableFile file = OpenForReading(name);
  if (!file.fd.IsOpen()) {
    return UsageFailure(fmt::format("INPUT: cannot read {}: {}", name, std::strerror(errno)));
  }
  if (file.is_folder) {
    return UsageFailure(fmt::format("INPUT: {} is a folder; give a file or -", name));
  }
  if (options.follow && !file.size) {
    return UsageFailure(fmt::format("--follow needs a file, and {} is none", name));
  }
  std::unique_ptr<ByteSource> source;
  if (options.follow) {
    source = std::make_unique<GrowingFile>(std::move(file.fd), options.silence, stop_fd);
  } else {
    source = std::make_unique<FileSource>(std::move(file), stop_fd);
  }
  return Input(std::move(source), name == "-" ? "standard input" : name);
}

Result<Input> OpenInput(const std::string& name, const InputOptions& options, int stop_fd) {
  const bool capture = IsCapture(name);
  if (options.flow && !capture) {
    return UsageFailure(
        fmt::format("--flow needs a pcap or pcapng file as INPUT, and {} is none", name));
  }
  if (IsLiveAddress(name)) {
    return OpenLive(name, options, stop_fd);
  }
  if (options.silence && !options.follow) {
    return UsageFailure(
        "--end-after-silence needs an INPUT that goes on: udp://, rtp:// or a file with --follow");
  }
  if (options.follow && capture) {
    return UsageFailure("--follow needs a file with the stream itself, and INPUT is a capture");
  }
  if (!capture) {
    return OpenFile(name, options, stop_fd);
  }
  auto source = CaptureFile::Open(name, options.flow, options.raw, stop_fd);
  if (!source) {
    return source.Error();
  }
  return Input(std::move(*source), name);
}

}  // namespace ipplay
