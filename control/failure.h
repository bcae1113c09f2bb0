// SPDX-License-Identifier: MIT
// Why an operation of the interface of many playouts was refused.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "ipplayout/playouts.h"

namespace ipplayout {

struct Failure {
  Failure() = default;
  Failure(std::int32_t failure_code, std::string what)
      : code(failure_code), sentence(std::move(what)) {}

  explicit operator bool() const { return code != IPPLAYOUT_DONE; }

  std::int32_t code = IPPLAYOUT_DONE;
  std::string sentence;
};

}  // namespace ipplayout
