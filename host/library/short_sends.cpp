// SPDX-License-Identifier: MIT
#include "host/library/short_sends.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "host/base/memory_file.h"

namespace ipplay {
namespace {

// The library counts a header of its own with each frame.
constexpr std::uint64_t kQueueHeaderBytes = 16;

}  // namespace

ShortSends::ShortSends() : kept_(CreateMemoryFile("messages of the library", OnExec::kClose)) {
  std::fflush(stdout);
  saved_ = FileDescriptor(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
  if (kept_.IsOpen() && saved_.IsOpen()) {
    ::dup2(kept_.Get(), STDOUT_FILENO);
  }
}

ShortSends::~ShortSends() {
  std::fflush(stdout);
  if (kept_.IsOpen() && saved_.IsOpen()) {
    ::dup2(saved_.Get(), STDOUT_FILENO);
  }
}

std::vector<std::uint64_t> ShortSends::Read() const {
  std::fflush(stdout);
  const std::string text = ReadWhole(kept_);
  std::vector<std::uint64_t> sends;
  const std::string message = "An error occurred sending the packets:  Only ";
  for (std::size_t at = text.find(message); at != std::string::npos;
       at = text.find(message, at + message.size())) {
    sends.push_back(std::strtoull(text.c_str() + at + message.size(), nullptr, 10));
  }
  return sends;
}

std::uint64_t UnsentFrames(std::span<const std::uint64_t> bytes_sent, const SentInBatches& run) {
  std::uint64_t unsent = 0;
  for (std::size_t i = 0; i < bytes_sent.size(); ++i) {
    const std::uint64_t sent = bytes_sent[i] / (kQueueHeaderBytes + run.frame_bytes);
    std::uint64_t frames = run.batch;
    if (i + 1 == bytes_sent.size() && !run.frames) {
      frames = sent + 1;
    } else if (i + 1 == bytes_sent.size() && *run.frames % run.batch > sent) {
      frames = *run.frames % run.batch;
    }
    unsent += frames - std::min(sent, frames);
  }
  return unsent;
}

}  // namespace ipplay
