// SPDX-License-Identifier: MIT
#include "host/measure/figures/tr101290.h"

namespace ipplay::measure {
namespace {

constexpr IndicatorInfo kInfos[kIndicators] = {
    {"1.1", 1, "sync_loss", "2 wrong sync bytes in a row", EventKind::kSyncLoss},
    {"1.2", 1, "sync_byte", "0x47", EventKind::kSyncByte},
    {"1.3.a", 1, "pat", "every 0.5 s", EventKind::kPat},
    {"1.4", 1, "continuity", "counters in order", EventKind::kContinuity},
    {"1.5.a", 1, "pmt", "every 0.5 s", EventKind::kPmt},
    {"1.6", 1, "pid", "every 5 s", EventKind::kPid},
    {"2.1", 2, "transport", "indicator not set", EventKind::kTransport},
    {"2.2", 2, "crc", "right check bytes", EventKind::kCrc},
    {"2.3.a", 2, "pcr_repetition", "every 40 ms", EventKind::kPcrRepetition},
    {"2.3.b", 2, "pcr_discontinuity", "forward by up to 100 ms", EventKind::kPcrDiscontinuity},
    {"2.4", 2, "pcr_accuracy", "1 us peak to peak", EventKind::kPcrAccuracy},
    {"2.5", 2, "pts", "every 700 ms", EventKind::kPts},
    {"2.6", 2, "cat", "with scrambling", EventKind::kCat},
    {"3.1", 3, "nit", "every 10 s", EventKind::kSiRepetition},
    {"3.2", 3, "si_repetition", "BAT every 10 s, others every 30 s", EventKind::kSiRepetition},
    {"3.4.a", 3, "unreferenced_pid", "referenced within 0.5 s", EventKind::kUnreferencedPid},
    {"3.5", 3, "sdt", "every 2 s, of other streams 10 s", EventKind::kSiRepetition},
    {"3.6", 3, "eit", "every 2 s, of other streams 10 s", EventKind::kSiRepetition},
    {"3.7", 3, "rst", "no other table on its PID", EventKind::kSiRepetition},
    {"3.8", 3, "tdt", "every 30 s", EventKind::kSiRepetition},
};

}  // namespace

const IndicatorInfo& InfoOf(Indicator indicator) {
  return kInfos[static_cast<std::size_t>(indicator)];
}

void IndicatorLog::Count(Indicator indicator, const Error& error) {
  IndicatorState& state = At(indicator);
  state.measured = true;
  ++state.count;
  state.last_ns = error.time_ns;
  if (sink_ != nullptr) {
    sink_->Report({.time_ns = error.time_ns,
                   .kind = InfoOf(indicator).event,
                   .stream = stream_,
                   .pid = error.pid,
                   .amount = error.amount,
                   .detail = error.detail});
  }
}

std::uint64_t IndicatorLog::Sum(int priority) const {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < kIndicators; ++i) {
    if (kInfos[i].priority == priority && static_cast<Indicator>(i) != Indicator::kPcrAccuracy) {
      sum += states_[i].count;
    }
  }
  return sum;
}

}  // namespace ipplay::measure
