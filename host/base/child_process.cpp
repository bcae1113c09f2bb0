// SPDX-License-Identifier: MIT
#include "host/base/child_process.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "host/base/memory_file.h"
#include "host/base/stop_signals.h"

namespace ipplay {

bool ChildProcess::Start(std::vector<std::string> words, const std::function<bool()>& prepare) {
  output_ = CreateMemoryFile("output", OnExec::kClose);
  if (!output_.IsOpen()) {
    return false;
  }
  std::vector<char*> arguments;
  for (std::string& word : words) {
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
    if (::getppid() == parent && prepare() && ::dup2(output_.Get(), 1) == 1 &&
        ::dup2(output_.Get(), 2) == 2) {
      StopSignals::Forget();
      held_back.reset();
      ::execv("/proc/self/exe", arguments.data());
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
