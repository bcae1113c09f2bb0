// SPDX-License-Identifier: MIT
// Writing a file through a buffer.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "driver/opened.h"
#include "platform/deadline_waiter.h"
#include "platform/descriptor.h"

namespace ipplayout {

// A regular file is written as "<path>.<process>.part" and gets its name, and takes the place of an
// earlier file, when it is finished. What does not get that far is removed, so that a file is
// either whole or not there. Anything else at the path, such as a FIFO, a device or a symbolic
// link, is written as it stands. A FIFO needs its reader first (else ENXIO).
//
// The first error stays: nothing is written after it. Belongs to one thread at a time.
class OutputFile {
 public:
  static constexpr std::size_t kBufferBytes = 256 << 10;

  static Opened<OutputFile> Open(const std::string& path);
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  // Sees to it that `size` bytes, at most kBufferBytes, fit the buffer. 0, or the system's error
  // number. A pipe without room is waited for until `waiter` gives up (ECANCELED, which does not
  // stay).
  int MakeRoom(std::size_t size, const platform::DeadlineWaiter& waiter);
  // The next `size` bytes of the file, for the caller to fill. There is room for them.
  std::span<std::uint8_t> Append(std::size_t size);

  // Writes what is left and gives the file its name. 0, or the error number of this or of an
  // earlier step. A pipe from which nobody reads is waited for a few seconds (ETIMEDOUT).
  int Finish();

  // How often a pipe had no room.
  std::uint64_t Waits() const { return waits_; }

 private:
  OutputFile(std::string path, std::string part_path);

  bool OpenDescriptor();
  template <typename GiveUp>
  int Flush(GiveUp give_up);
  int Close();

  const std::string path_;
  std::string part_path_;  // empty when there is nothing to be renamed or removed
  platform::Descriptor descriptor_;
  std::unique_ptr<std::uint8_t[]> buffer_;
  std::size_t begin_ = 0;  // what is not yet written
  std::size_t end_ = 0;
  int error_ = 0;
  std::uint64_t waits_ = 0;
};

}  // namespace ipplayout
