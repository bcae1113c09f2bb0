// SPDX-License-Identifier: MIT
// Two network namespaces without names, joined by a veth pair. No process but this one and its
// children holds them, so the kernel removes all of it with them, however they end.
#pragma once

#include <string>

#include "host/base/file_descriptor.h"
#include "host/base/result.h"

namespace ipplay::measure {

class DemoNetwork {
 public:
  static constexpr const char* kNear = "near";  // the sender's adapter
  static constexpr const char* kFar = "far";    // the receiver's
  static constexpr const char* kFarAddress = "10.77.0.2";

  // Moves the calling process, which must have a single thread, into the far namespace for good.
  // Without root's rights it first becomes root of a user namespace.
  static Result<DemoNetwork> Create();

  // Moves the calling thread into the near namespace.
  bool EnterNear() const;

 private:
  explicit DemoNetwork(FileDescriptor near) : near_(std::move(near)) {}

  FileDescriptor near_;
};

}  // namespace ipplay::measure
