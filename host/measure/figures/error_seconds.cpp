// SPDX-License-Identifier: MIT
#include "host/measure/figures/error_seconds.h"

#include <utility>

namespace ipplay::measure {

void ErrorSeconds::AddErrors(std::int64_t arrival_ns, std::uint64_t errors) {
  if (errors == 0) {
    return;
  }
  if (arrival_ns < start_ns_) {
    if (before_) {
      before_->has_other_errors = true;
    }
  } else if (arrival_ns - start_ns_ >= kSecondNs) {
    behind_ = {arrival_ns, behind_.count + errors};
  } else {
    errors_ += errors;
  }
}

void ErrorSeconds::End(std::int64_t start_ns, std::uint64_t received_packets,
                       std::uint64_t lost_packets) {
  if (before_) {
    total_.Add(*before_);
  }
  before_ = {received_packets, lost_packets, errors_ > 0};
  start_ns_ = start_ns + kSecondNs;
  errors_ = 0;
  if (behind_.count > 0 && behind_.arrival_ns - start_ns_ < kSecondNs) {
    errors_ = std::exchange(behind_, {}).count;
  }
}

void ErrorSeconds::EndEmpty(std::int64_t start_ns, std::int64_t seconds) {
  End(start_ns, 0, 0);
  total_.Add({}, static_cast<std::uint64_t>(seconds - 1));
  start_ns_ += (seconds - 1) * kSecondNs;
}

void ErrorSeconds::Finish() {
  if (before_) {
    total_.Add(*before_);
    before_.reset();
  }
}

}  // namespace ipplay::measure
