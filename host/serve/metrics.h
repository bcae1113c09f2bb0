// SPDX-License-Identifier: MIT
// Figures of all playouts and meters for Prometheus. docs/serve.md lists them.
#pragma once

#include <prometheus/metric_family.h>

#include <memory>
#include <string>
#include <vector>

#include "host/lineup/channel.h"
#include "host/serve/meter_store.h"
#include "host/serve/playout_store.h"

namespace ipplay::serve {

using Families = std::vector<prometheus::MetricFamily>;

// Text format 0.0.4.
std::string MetricsText(const PlayoutStore& playouts, const MeterStore& meters);

// Its parts: counters of playouts and meters begin at 0 with each run, as those of a program do.
void AddPlayoutMetrics(const std::vector<ChannelStatus>& playouts, Families& families);
void AddLateness(const PlayoutStore::Channels& channels, Families& families);
void AddStreamMetrics(const std::vector<std::shared_ptr<const Meter>>& meters, Families& families);

}  // namespace ipplay::serve
