// SPDX-License-Identifier: MIT
#include "host/base/reload_signal.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace ipplay {

ReloadSignal::ReloadSignal() {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGHUP);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  fd_ = FileDescriptor(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
}

bool ReloadSignal::Take() const {
  bool came = false;
  signalfd_siginfo info{};
  while (::read(fd_.Get(), &info, sizeof info) == sizeof info) {
    came = true;
  }
  return came;
}

}  // namespace ipplay
