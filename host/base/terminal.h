// SPDX-License-Identifier: MIT
// Single keys from the terminal that the user sits at.
#pragma once

#include <termios.h>

#include <memory>
#include <optional>

#include "host/base/file_descriptor.h"

namespace ipplay {

// 80 and 24 where they are unknown.
struct ScreenSize {
  unsigned columns = 80;
  unsigned rows = 24;
};
ScreenSize SizeOfScreen(int terminal);

class Terminal {
 public:
  // Null where standard error is not a terminal, or another job is in the foreground.
  static std::unique_ptr<Terminal> Open();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  // Restores the terminal's settings.
  ~Terminal();

  // Readable when a key was pressed.
  int Fd() const { return fd_.Get(); }
  // A key that was pressed, without waiting.
  std::optional<char> ReadKey() const;
  unsigned Columns() const { return SizeOfScreen(fd_.Get()).columns; }
  // Delivers keys one by one, without echo. Call it again when the job continues after a stop.
  void TakeKeys() const;

 private:
  Terminal(FileDescriptor fd, const termios& original);

  FileDescriptor fd_;
  termios original_;
};

}  // namespace ipplay
