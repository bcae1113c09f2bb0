// SPDX-License-Identifier: MIT
#include "platform/native_thread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <utility>

#include "platform/signal.h"

namespace ipplayout::platform {
namespace {

bool BlocksTermination() {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGALRM) == 1;
}

struct Body {
  Signal go;
  bool signals_blocked = false;

  static void Run(void* self) {
    Body& body = *static_cast<Body*>(self);
    body.signals_blocked = BlocksTermination();
    body.go.Wait();
  }
};

// Higher runs first: the real-time priority, then the nice value turned round.
std::pair<int, int> PrecedenceOf(std::uint32_t thread) {
  sched_param parameters{};
  sched_getparam(static_cast<pid_t>(thread), &parameters);
  return {parameters.sched_priority, -getpriority(PRIO_PROCESS, thread)};
}

TEST(NativeThreadTest, LeavesSignalsToTheHostAndLevelsKeepTheirOrderWhereThatIsPermitted) {
  Body body;
  auto thread = NativeThread::Start("levels", 0, &Body::Run, &body);
  ASSERT_NE(thread, nullptr);
  EXPECT_FALSE(BlocksTermination());
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
  thread.reset();
  EXPECT_TRUE(body.signals_blocked);
}

// A worker that looks at its capabilities before a change of the user and sets them after it would
// be left with others than the rest of the process.
void ChangeUserBesideAWorker() {
  std::atomic<bool> changed{false};
  std::thread worker([&changed] {
    while (!changed) {
      GiveUpCapabilities();
    }
  });
  constexpr uid_t kNobody = 65534;
  for (int i = 0; i < 5000 && seteuid(kNobody) == 0 && seteuid(0) == 0; ++i) {
  }
  changed = true;
  worker.join();
  _exit(geteuid() == 0 ? 0 : 1);
}

TEST(NativeThreadTest, AWorkerThatGivesUpCapabilitiesFollowsChangesOfTheUser) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can change its user";
  }
  EXPECT_EXIT(ChangeUserBesideAWorker(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ipplayout::platform
