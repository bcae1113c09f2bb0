// SPDX-License-Identifier: MIT
#include "host/demo/demo_media.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "host/base/memory_file.h"
#include "host/base/memory_folder.h"
#include "host/demo/demo_stream.h"

namespace ipplay::measure {
namespace {

constexpr const char* kMountPoint = "/mnt";
constexpr std::chrono::seconds kLength{10};

struct DemoFile {
  const char* name;
  double bit_rate;
};

constexpr DemoFile kFiles[] = {{"news.ts", 4e6}, {"sport.ts", 8e6}, {"film.ts", 6e6}};

Failure Failed(const char* what) {
  return {ExitStatus::kFailed, fmt::format("cannot {}: {}", what, std::strerror(errno))};
}

}  // namespace

std::optional<Failure> MakeDemoMedia() {
  if (!MakeMemoryFolder(kMountPoint, kDemoMediaFolder)) {
    return Failed("mount a file system in memory on /mnt");
  }
  for (const DemoFile& file : kFiles) {
    const auto fd = CreateReadableFile(fmt::format("{}/{}", kDemoMediaFolder, file.name));
    if (!WriteAll(fd, MakeDemoStream(file.bit_rate, kLength))) {
      return Failed("write the streams of the demonstration into memory");
    }
  }
  return std::nullopt;
}

}  // namespace ipplay::measure
