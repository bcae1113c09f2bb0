// SPDX-License-Identifier: MIT
// Network namespaces without names, with a veth pair. No process but this one and its children
// holds them, so the kernel removes all of it with them, however they end.
#pragma once

#include <optional>
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

  // The same with both adapters in one namespace, for a process that plays and measures: multicast
  // leaves at the near one. What the process has open before stays where it is, as a socket to
  // which a browser connects.
  static std::optional<Failure> EnterWhole();

  // Moves the calling thread into the near namespace.
  bool EnterNear() const;

 private:
  explicit DemoNetwork(FileDescriptor near) : near_(std::move(near)) {}

  FileDescriptor near_;
};

}  // namespace ipplay::measure
