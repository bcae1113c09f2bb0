#include "transmit/osa_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/signal.h"
#include "transmit/trace_log.h"

namespace ipplayout {
namespace {

class Worker final : public OsaThread {
 public:
  explicit Worker(const char* name) : OsaThread(name, 0, OsaThreadPriority::BelowNormal()) {}
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

TEST(OsaThreadTest, StartTracesNameAndIdAndRunsAgainAfterAStop) {
  Worker worker("0123456789abcdefghijklmnopqrstuvwxyz");
  EXPECT_STREQ(worker.Name(), "0123456789abcdefghijklmnopqrstu");  // 31 characters
  for (int run = 1; run <= 2; ++run) {
    worker.go.Set();
    testing::internal::CaptureStdout();
    ASSERT_TRUE(worker.Start());
    // The message ends in a newline of its own.
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::MatchesRegex("[0-9/]{8} [0-9:]{8} OsaThread::Start, name = "
                                      "0123456789abcdefghijklmnopqrstu, id = [0-9]+\n\n"));
    worker.Join();
    EXPECT_EQ(worker.runs, run);
    EXPECT_FALSE(worker.stop_seen_at_start);
    worker.Stop();
  }
}

TEST(OsaThreadTest, KeepsThePriorityThatWasSetLast) {
  Worker worker("priority");
  OsaTraceSilent = true;
  EXPECT_EQ(worker.SetPriority(OsaThreadPriority::Idle()), OsaThreadPriority::BelowNormal());
  ASSERT_TRUE(worker.Start());  // there was no thread yet to change
  EXPECT_EQ(worker.SetPriority(OsaThreadPriority::Idle()), OsaThreadPriority::BelowNormal());
  worker.go.Set();
  ASSERT_TRUE(worker.Start());
  EXPECT_EQ(worker.SetPriority(OsaThreadPriority::Normal()), OsaThreadPriority::Idle());
  worker.Join();
  OsaTraceSilent = false;
}

}  // namespace
}  // namespace ipplayout
