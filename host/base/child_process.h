// SPDX-License-Identifier: MIT
// This program once more, as a child process.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/base/file_descriptor.h"

namespace ipplay {

class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  // Ends the process and waits for it.
  ~ChildProcess();

  // `words` is its command line, with its name first; `prepare` runs in the child before, and false
  // gives up. The child ends with this process in any case. Call it once.
  bool Start(std::vector<std::string> words, const std::function<bool()>& prepare);
  bool HasEnded();
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
