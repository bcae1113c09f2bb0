// SPDX-License-Identifier: MIT
#include "host/base/terminal.h"

#include <fcntl.h>
#include <sys/ioctl.h>

namespace ipplay {

Terminal::Terminal(FileDescriptor fd, const termios& original)
    : fd_(std::move(fd)), original_(original) {}

std::unique_ptr<Terminal> Terminal::Open() {
  if (::isatty(STDERR_FILENO) == 0) {
    return nullptr;
  }
  // Standard input may be the stream.
  FileDescriptor fd(::open("/dev/tty", O_RDWR | O_NONBLOCK | O_CLOEXEC));
  termios original{};
  if (!fd.IsOpen() || ::tcgetpgrp(fd.Get()) != ::getpgrp() ||
      ::tcgetattr(fd.Get(), &original) != 0) {
    return nullptr;
  }
  std::unique_ptr<Terminal> terminal(new Terminal(std::move(fd), original));
  terminal->TakeKeys();
  return terminal;
}

Terminal::~Terminal() {
  ::tcsetattr(fd_.Get(), TCSANOW, &original_);
}

void Terminal::TakeKeys() const {
  termios keys = original_;
  keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  keys.c_cc[VMIN] = 0;
  keys.c_cc[VTIME] = 0;
  ::tcsetattr(fd_.Get(), TCSANOW, &keys);
}

std::optional<char> Terminal::ReadKey() const {
  char key = 0;
  if (::read(fd_.Get(), &key, 1) != 1) {
    return std::nullopt;
  }
  return key;
}

ScreenSize SizeOfScreen(int terminal) {
  winsize size{};
  ScreenSize screen;
  if (::ioctl(terminal, TIOCGWINSZ, &size) == 0) {
    screen.columns = size.ws_col > 0 ? size.ws_col : screen.columns;
    screen.rows = size.ws_row > 0 ? size.ws_row : screen.rows;
  }
  return screen;
}

}  // namespace ipplay
