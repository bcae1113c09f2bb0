// SPDX-License-Identifier: MIT
#include "transmit/osa_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/signal.h"

namespace ipplayout {
namespace {

struct Worker final : OsaThread {
  Worker() : OsaThread("0123456789abcdefghijklmnopqrstuvwxyz", 0, OsaThreadPriority::Normal()) {}
  ~Worker() override { Join(); }

  void Run() override {
    stop_seen_at_start = StopRequested();
    ++runs;
    go.Wait();
  }

  platform::Signal go;
  int runs = 0;
  bool stop_seen_at_start = false;
};

TEST(OsaThreadTest, TracesItsStartAndRunsAgainAfterAStopAsItWasSetLast) {
  Worker worker;
  EXPECT_EQ(worker.SetPriority(OsaThreadPriority::Idle()), OsaThreadPriority::Normal());
  for (int run = 1; run <= 2; ++run) {
    testing::internal::CaptureStdout();
    ASSERT_TRUE(worker.Start());
    // 31 characters of the name; the message ends in a newline of its own.
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::MatchesRegex("[0-9/]{8} [0-9:]{8} OsaThread::Start, name = "
                                      "0123456789abcdefghijklmnopqrstu, id = [0-9]+\n\n"));
    // Without a thread there is nothing to set; a thread's level is kept for the next one.
    EXPECT_EQ(worker.SetPriority(OsaThreadPriority::Idle()),
              run == 1 ? OsaThreadPriority::Normal() : OsaThreadPriority::Idle());
    worker.go.Set();
    worker.Join();
    EXPECT_EQ(worker.runs, run);
    EXPECT_FALSE(worker.stop_seen_at_start);
    worker.Stop();
  }
}

}  // namespace
}  // namespace ipplayout
