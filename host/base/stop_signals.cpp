// SPDX-License-Identifier: MIT
#include "host/base/stop_signals.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

namespace ipplay {
namespace {

constexpr std::array kSignals{SIGINT, SIGTERM, SIGHUP};
constexpr std::int64_t kOneWishNs = 500'000'000;

// Written by the handler on whichever thread it runs, read by all.
std::atomic<int> wish{0};
std::atomic<std::int64_t> wish_ns{0};
static_assert(std::atomic<int>::is_always_lock_free &&
              std::atomic<std::int64_t>::is_always_lock_free);

// Set before the handler is installed.
int event = -1;

std::int64_t NowNs() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void OnSignal(int signal) {
  const int error = errno;
  int none = 0;
  if (wish_ns.load() == 0) {
    wish_ns = NowNs();
  }
  if (wish.compare_exchange_strong(none, signal)) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(event, &one, sizeof one);
  } else if (NowNs() - wish_ns.load() > kOneWishNs) {
    // Takes effect when the handler returns.
    ::signal(signal, SIG_DFL);
    ::raise(signal);
  }
  errno = error;
}

}  // namespace

void StopSignals::Take() {
  if (event >= 0) {
    return;
  }
  event = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  struct sigaction action {};
  // No SA_RESTART: a wait ends at once.
  action.sa_handler = OnSignal;
  for (const int signal : kSignals) {
    struct sigaction before {};
    ::sigaction(signal, nullptr, &before);
    if (before.sa_handler != SIG_IGN) {
      ::sigaction(signal, &action, nullptr);
    }
  }
}

void StopSignals::Forget() {
  for (const int signal : kSignals) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    if (action.sa_handler == OnSignal) {
      ::signal(signal, SIG_DFL);
    }
  }
}

int StopSignals::Came() {
  return wish.load(std::memory_order_relaxed);
}

int StopSignals::Fd() {
  return event;
}

StopSignals::HeldBack::HeldBack() {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : kSignals) {
    ::sigaddset(&set, signal);
  }
  ::pthread_sigmask(SIG_BLOCK, &set, &before_);
}

StopSignals::HeldBack::~HeldBack() {
  ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace ipplay
