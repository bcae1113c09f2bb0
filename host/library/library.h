// SPDX-License-Identifier: MIT
// The library, made ready for as long as the object lives.
#pragma once

#include <vector>

#include "host/library/adapters.h"

namespace ipplay {

class Library {
 public:
  Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library();

  const std::vector<Adapter>& Adapters() const { return adapters_; }

 private:
  std::vector<Adapter> adapters_;
};

}  // namespace ipplay
