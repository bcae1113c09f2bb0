#include "platform/native_thread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>

#include <fstream>
#include <string>
#include <utility>

#include "platform/signal.h"

namespace ipplayout::platform {
namespace {

struct Body {
  Signal go;
  bool signals_blocked = false;

  static void Run(void* self) {
    Body& body = *static_cast<Body*>(self);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    body.signals_blocked = sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGALRM) == 1;
    body.go.Wait();
  }
};

std::string NameOf(std::uint32_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/comm");
  std::string name;
  std::getline(file, name);
  return name;
}

// Higher runs first: the real-time priority, then the nice value turned round.
std::pair<int, int> PrecedenceOf(std::uint32_t thread) {
  sched_param parameters{};
  sched_getparam(static_cast<pid_t>(thread), &parameters);
  return {parameters.sched_priority, -getpriority(PRIO_PROCESS, thread)};
}

TEST(NativeThreadTest, IsNamedAndLeavesSignalsToTheHost) {
  Body body;
  {
    const auto thread = NativeThread::Start("PacketTransmitterThread", 0, &Body::Run, &body);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(NameOf(thread->Id()), "PacketTransmitt");
    body.go.Set();
  }
  EXPECT_TRUE(body.signals_blocked);
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_EQ(sigismember(&mask, SIGTERM), 0);  // the starting thread's are as before
}

TEST(NativeThreadTest, LevelsKeepTheirOrderAsFarAsTheSystemPermits) {
  Body body;
  const auto thread = NativeThread::Start("levels", 0, &Body::Run, &body);
  ASSERT_NE(thread, nullptr);
  const bool permitted = setpriority(PRIO_PROCESS, 0, -1) == 0;
  setpriority(PRIO_PROCESS, 0, 0);
  for (const bool real_time : {false, true}) {
    std::pair<int, int> previous{-1, -20};
    for (const std::int32_t level : {-15, -1, 0, 1, 2, 15}) {
      thread->SetPriority(level, real_time);
      const auto precedence = PrecedenceOf(thread->Id());
      EXPECT_GE(precedence, previous) << level;
      EXPECT_TRUE(precedence != previous || !permitted) << level;
      EXPECT_TRUE((precedence.first > 0) == real_time || !permitted) << level;
      previous = precedence;
    }
  }
  body.go.Set();
}

}  // namespace
}  // namespace ipplayout::platform
