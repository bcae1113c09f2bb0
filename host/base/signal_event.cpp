// SPDX-License-Identifier: MIT
#include "host/base/signal_event.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace ipplay {

SignalEvent::SignalEvent(int signal) {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, signal);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  fd_ = FileDescriptor(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
}

bool SignalEvent::Take() const {
  bool came = false;
  signalfd_siginfo info{};
  while (::read(fd_.Get(), &info, sizeof info) == sizeof info) {
    came = true;
  }
  return came;
}

}  // namespace ipplay
