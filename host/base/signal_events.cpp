// SPDX-License-Identifier: MIT
#include "host/base/signal_events.h"

#include <signal.h>
#include <sys/signalfd.h>

namespace ipplay {
namespace {

sigset_t SetOf(std::initializer_list<int> signals) {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : signals) {
    ::sigaddset(&set, signal);
  }
  return set;
}

FileDescriptor BlockAndOpen() {
  const sigset_t set = SetOf({SIGINT, SIGTERM, SIGHUP, SIGCONT});
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  return FileDescriptor(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
}

}  // namespace

SignalEvents::SignalEvents() : fd_(BlockAndOpen()) {}

std::optional<Interruption> SignalEvents::Take() const {
  std::optional<Interruption> stop;
  signalfd_siginfo info{};
  while (::read(fd_.Get(), &info, sizeof info) == sizeof info) {
    if (info.ssi_signo != SIGCONT) {
      stop = info.ssi_signo == SIGINT ? Interruption::kCtrlC : Interruption::kOtherSignal;
    }
  }
  return stop;
}

void SignalEvents::LetSignalsKill() {
  const sigset_t set = SetOf({SIGINT, SIGTERM});
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace ipplay
