// SPDX-License-Identifier: MIT
#include "host/library/departures_json.h"

namespace ipplay {

Json DeparturesJson(const IpPlayoutTiming& timing) {
  return {{"on_time", timing.OnTime},
          {"late", timing.Late},
          {"left_out", timing.LeftOut},
          {"not_sent", timing.NotSent},
          {"discarded", timing.Discarded},
          {"lateness_ns",
           {{"p50", TimeOrNull(timing.LatenessP50Ns)},
            {"p99", TimeOrNull(timing.LatenessP99Ns)},
            {"p99_9", TimeOrNull(timing.LatenessP999Ns)},
            {"max", TimeOrNull(timing.LatenessMaxNs)}}},
          {"longest_gap_ns", TimeOrNull(timing.LongestGapNs)},
          {"shift_ns", timing.ShiftNs},
          {"dry_times", timing.DryTimes},
          {"dry_ns", timing.DryNs}};
}

}  // namespace ipplay
