// SPDX-License-Identifier: MIT
// `ipplay play` as a process of its own beside a measurement.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "host/base/file_descriptor.h"
#include "host/demo/demo_network.h"

namespace ipplay::measure {

class PlayerProcess {
 public:
  PlayerProcess() = default;
  PlayerProcess(const PlayerProcess&) = delete;
  PlayerProcess& operator=(const PlayerProcess&) = delete;
  // Ends it and waits for its end.
  ~PlayerProcess();

  // In the near namespace. It ends with this process, whatever happens. Call it once.
  bool Start(const DemoNetwork& network, std::vector<std::string> arguments);
  bool HasEnded();
  // Its exit status, once it has ended; what a shell would say of one that a signal ended.
  int Status() const { return status_; }
  // What it said.
  std::string Output() const;

 private:
  pid_t process_ = -1;
  bool ended_ = false;
  int status_ = 0;
  FileDescriptor output_;
};

}  // namespace ipplay::measure
