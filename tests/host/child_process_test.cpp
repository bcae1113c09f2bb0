// SPDX-License-Identifier: MIT
#include "host/base/child_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>

#include "host/base/stop_signals.h"

namespace ipplay {
namespace {

// The status of a child that is asked to stop while it is not yet the program that it is to be.
int StatusAfterAnEarlySignal(int signal) {
  ChildProcess child;
  const bool started = child.Start({.words = {"host_tests", "--gtest_list_tests"}}, [signal] {
    ::raise(signal);
    return true;
  });
  while (started && !child.HasEnded()) {
    ::usleep(1000);
  }
  return started ? child.Status() : -1;
}

TEST(ChildProcess, LosesNoSignalThatComesBeforeItsProgram) {
  for (const int signal : {SIGINT, SIGTERM}) {
    EXPECT_EXIT(
        {
          StopSignals::Take();
          std::exit(StatusAfterAnEarlySignal(signal) == 128 + signal ? 0 : 1);
        },
        testing::ExitedWithCode(0), "")
        << signal;
  }
}

TEST(ChildProcess, GoesOnIgnoringWhatWasIgnored) {
  EXPECT_EXIT(
      {
        ::signal(SIGINT, SIG_IGN);
        StopSignals::Take();
        std::exit(StatusAfterAnEarlySignal(SIGINT));
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ipplay
