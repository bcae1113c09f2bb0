// SPDX-License-Identifier: MIT
// Tells when an adapter's link goes and comes back, whatever the reason.
#pragma once

#include <optional>
#include <string>

#include "host/base/file_descriptor.h"

namespace ipplay::measure {

class LinkWatch {
 public:
  // Watches nothing where there is no such adapter, as with "any".
  explicit LinkWatch(const std::string& adapter);

  // The next change since the last call: true for up, false for down. Does not wait.
  std::optional<bool> TakeChange();
  bool IsUp() const { return up_; }

 private:
  bool Receive();

  unsigned index_;
  FileDescriptor socket_;
  bool up_ = true;
  alignas(8) char buffer_[16384] = {};
  char* next_ = buffer_;
  std::size_t left_ = 0;  // bytes of notices from `next_` on
};

}  // namespace ipplay::measure
