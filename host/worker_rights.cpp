#include "host/worker_rights.h"

#include <linux/capability.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace ipplay {
namespace {

constexpr int kSignal = SIGUSR2;

std::array<std::atomic<pid_t>, 64> workers;
std::atomic<std::size_t> worker_count;

sem_t* Answers() {
  static sem_t answers;
  static const int made = sem_init(&answers, 0, 0);
  static_cast<void>(made);
  return &answers;
}

// Only what a signal handler may do.
void GiveUp(int) {
  const int before = errno;
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
  syscall(SYS_capset, &header, none.data());
  sem_post(Answers());
  errno = before;
}

}  // namespace

void JoinWorkers() {
  const std::size_t place = worker_count.fetch_add(1);
  if (place >= workers.size()) return;
  workers[place].store(static_cast<pid_t>(syscall(SYS_gettid)));
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, kSignal);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void DropWorkerCapabilities() {
  sem_t* const answers = Answers();
  struct sigaction action {};
  action.sa_handler = GiveUp;
  action.sa_flags = SA_RESTART;
  sigaction(kSignal, &action, nullptr);
  int asked = 0;
  for (const std::atomic<pid_t>& worker : workers) {
    const pid_t thread = worker.load();
    if (thread != 0 && syscall(SYS_tgkill, getpid(), thread, kSignal) == 0) ++asked;
  }
  // One that ends just now does not answer any more.
  timespec until{};
  clock_gettime(CLOCK_REALTIME, &until);
  ++until.tv_sec;
  while (asked > 0) {
    if (sem_timedwait(answers, &until) == 0) {
      --asked;
    } else if (errno != EINTR) {
      return;
    }
  }
}

}  // namespace ipplay
