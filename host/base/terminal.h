// SPDX-License-Identifier: MIT
// Single keys from the terminal that the user sits at.
#pragma once

#include <termios.h>

#include <memory>
#include <optional>

#include "host/base/file_descriptor.h"

namespace ipplay {

class Terminal {
 public:
  // Null where standard error is no terminal, or belongs to another foreground job.
  static std::unique_ptr<Terminal> Open();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  // Gives the terminal back as it was.
  ~Terminal();

  // Readable when a key was pressed.
  int Fd() const { return fd_.Get(); }
  // A key that was pressed, without waiting.
  std::optional<char> ReadKey() const;
  // Columns of the screen; 80 where they are unknown.
  unsigned Columns() const;
  // Keys one by one and unseen; needed again after the job was stopped and went on.
  void TakeKeys() const;

 private:
  Terminal(FileDescriptor fd, const termios& original);

  FileDescriptor fd_;
  termios original_;
};

}  // namespace ipplay
