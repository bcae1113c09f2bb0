// SPDX-License-Identifier: MIT
#include "host/demo/player_process.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

namespace ipplay::measure {

bool PlayerProcess::Start(const DemoNetwork& network, std::vector<std::string> arguments) {
  output_ = FileDescriptor(::memfd_create("output", MFD_CLOEXEC));
  if (!output_.IsOpen()) {
    return false;
  }
  std::string program = "ipplay";
  std::vector<char*> words{program.data()};
  for (std::string& argument : arguments) {
    words.push_back(argument.data());
  }
  words.push_back(nullptr);
  const pid_t parent = ::getpid();
  process_ = ::fork();
  if (process_ < 0) {
    return false;
  }
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() == parent && network.EnterNear() && ::dup2(output_.Get(), 1) == 1 &&
        ::dup2(output_.Get(), 2) == 2) {
      ::execv("/proc/self/exe", words.data());
    }
    ::_exit(EXIT_FAILURE);
  }
  return true;
}

bool PlayerProcess::HasEnded() {
  int status = 0;
  if (!ended_ && process_ > 0 && ::waitpid(process_, &status, WNOHANG) == process_) {
    ended_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return ended_;
}

std::string PlayerProcess::Output() const {
  struct stat status {};
  if (::fstat(output_.Get(), &status) != 0) {
    return {};
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  const ssize_t size = ::pread(output_.Get(), text.data(), text.size(), 0);
  text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return text;
}

PlayerProcess::~PlayerProcess() {
  if (process_ <= 0 || HasEnded()) {
    return;
  }
  ::kill(process_, SIGTERM);
  ::waitpid(process_, nullptr, 0);
}

}  // namespace ipplay::measure
