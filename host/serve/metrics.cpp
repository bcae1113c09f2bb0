// SPDX-License-Identifier: MIT
#include "host/serve/metrics.h"

#include <prometheus/text_serializer.h>

#include "host/serve/metric_family.h"

namespace ipplay::serve {

std::string MetricsText(const PlayoutStore& playouts, const MeterStore& meters) {
  Families families;
  MetricFamily info("ipplay_build_info", "The version of the program.",
                    prometheus::MetricType::Gauge);
  info.Add({{"version", IPPLAYOUT_VERSION}}, std::uint64_t{1});
  families.push_back(info.Take());
  AddPlayoutMetrics(playouts.Statuses(), families);
  AddLateness(playouts.All(), families);
  AddStreamMetrics(meters.All(), families);
  std::erase_if(families, [](const auto& family) { return family.metric.empty(); });
  return prometheus::TextSerializer().Serialize(families);
}

}  // namespace ipplay::serve
