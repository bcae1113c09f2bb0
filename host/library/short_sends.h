// SPDX-License-Identifier: MIT
// Frames that the adapter did not take. The library prints a line for each batch that it could not
// send whole, and after the last datagram it does not report such a failure in any other way.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "host/base/file_descriptor.h"

namespace ipplay {

// While it lives, standard output is kept instead of shown.
class ShortSends {
 public:
  ShortSends();
  ShortSends(const ShortSends&) = delete;
  ShortSends& operator=(const ShortSends&) = delete;
  ~ShortSends();

  // Of each batch that could not be sent whole, oldest first, how many bytes were sent.
  std::vector<std::uint64_t> Read() const;

 private:
  FileDescriptor kept_;
  FileDescriptor saved_;
};

struct SentInBatches {
  std::uint64_t batch = 1;                // frames of a full batch
  std::uint64_t frame_bytes = 0;          // of a full frame
  std::optional<std::uint64_t> frames{};  // of all batches; nothing where it is not known
};

// Frames of these batches that were not sent. The last batch is the rest of the run, if there was
// one. A lower bound where the number of all frames is not known.
std::uint64_t UnsentFrames(std::span<const std::uint64_t> bytes_sent, const SentInBatches& run);

}  // namespace ipplay
