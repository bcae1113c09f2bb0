// SPDX-License-Identifier: MIT
// A program as a child process: this one once more, or another.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "host/base/file_descriptor.h"

namespace ipplay {

class ChildProcess {
 public:
  struct Program {
    std::vector<std::string> words;       // its command line, with its name first
    std::string path = "/proc/self/exe";  // this one once more
    int input = -1;                       // its standard input; -1: that of this process
    bool hides_errors = false;            // what it says on standard error is no output
  };

  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  // Ends the process and waits for it.
  ~ChildProcess();

  // `prepare` runs in the child before, and false gives up. The child ends with the thread that
  // called this in any case. Call it once.
  bool Start(Program program, const std::function<bool()>& prepare);
  bool HasEnded();
  // Waits for its end, for so long; as HasEnded.
  bool WaitFor(std::chrono::nanoseconds time);
  // Ends it at once, whatever it does.
  void Kill();
  // Its exit status once it has ended, or 128 + N after signal N, as in a shell.
  int Status() const { return status_; }
  // Everything that it printed.
  std::string Output() const;

 private:
  int process_ = -1;
  bool ended_ = false;
  int status_ = 0;
  FileDescriptor output_;
};

}  // namespace ipplay
