// SPDX-License-Identifier: MIT
#include "host/base/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <span>
#include <utility>

#include "host/base/memory_file.h"
#include "host/base/poll_until.h"
#include "host/base/stop_signals.h"

namespace ipplay {
namespace {

// Of the child, for good.
bool PlaceStreams(const ChildProcess::Program& program, const FileDescriptor& output) {
  const FileDescriptor nothing(program.hides_errors ? ::open("/dev/null", O_WRONLY | O_CLOEXEC)
                                                    : -1);
  const int errors = program.hides_errors ? nothing.Get() : output.Get();
  return (program.input < 0 || ::dup2(program.input, 0) == 0) && ::dup2(output.Get(), 1) == 1 &&
         ::dup2(errors, 2) == 2;
}

}  // namespace

bool ChildProcess::Start(Program program, const std::function<bool()>& prepare) {
  output_ = CreateMemoryFile("output", OnExec::kClose);
  if (!output_.IsOpen()) {
    return false;
  }
  std::vector<char*> arguments;
  for (std::string& word : program.words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  const pid_t parent = ::getpid();
  // A signal to the child is for the program that it becomes: this one's handler would take it, and
  // the program would not know of it.
  std::optional<StopSignals::HeldBack> held_back(std::in_place);
  process_ = ::fork();
  if (process_ < 0) {
    return false;
  }
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() == parent && PlaceStreams(program, output_) && prepare()) {
      StopSignals::Forget();
      held_back.reset();
      ::execv(program.path.c_str(), arguments.data());
    }
    ::_exit(EXIT_FAILURE);
  }
  return true;
}

bool ChildProcess::HasEnded() {
  int status = 0;
  if (!ended_ && process_ > 0 && ::waitpid(process_, &status, WNOHANG) == process_) {
    ended_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return ended_;
}

bool ChildProcess::WaitFor(std::chrono::nanoseconds time) {
  const FileDescriptor end(static_cast<int>(::syscall(SYS_pidfd_open, process_, 0)));
  pollfd wait{end.Get(), POLLIN, 0};
  PollUntil(std::span(&wait, 1), std::chrono::steady_clock::now().time_since_epoch() + time);
  return HasEnded();
}

void ChildProcess::Kill() {
  if (process_ > 0 && !HasEnded()) {
    ::kill(process_, SIGKILL);
  }
}

std::string ChildProcess::Output() const {
  return ReadWhole(output_);
}

ChildProcess::~ChildProcess() {
  if (process_ <= 0 || HasEnded()) {
    return;
  }
  ::kill(process_, SIGTERM);
  ::waitpid(process_, nullptr, 0);
}

}  // namespace ipplay
