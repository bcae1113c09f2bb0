// SPDX-License-Identifier: MIT
#include "host/play/ordered_faults.h"

namespace ipplay {

std::optional<std::string> OrderedFaults::Order(const Action& action, std::chrono::nanoseconds at,
                                                const std::string& by) {
  auto refused = playing_.Order(action, at, orders_);
  if (!refused) {
    waiting_.insert({orders_++, {action.kind, by}});
  }
  return refused;
}

std::vector<OrderedFaults::Done> OrderedFaults::TakeDone() {
  std::vector<Done> all_done;
  for (const IpPlayoutDone& done : playing_.ReadDone()) {
    auto order = waiting_.extract(done.Number);
    all_done.push_back({done, order.mapped().kind, std::move(order.mapped().by)});
  }
  return all_done;
}

}  // namespace ipplay
