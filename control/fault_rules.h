// SPDX-License-Identifier: MIT
// Which faults a playout of the many can be ordered to make.
#pragma once

#include "control/failure.h"
#include "ipplayout/playouts.h"

namespace ipplayout {

// The chances of the settings.
Failure CheckFaults(const IpPlayoutSettings& settings);

// Orders while it runs.
class OrderRules {
 public:
  explicit OrderRules(const IpPlayoutSettings& settings);

  Failure Check(const IpPlayoutOrder& order) const;

 private:
  bool is_rtp_;
  bool is_ipv4_;
  bool is_socket_;
};

}  // namespace ipplayout
