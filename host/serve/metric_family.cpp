// SPDX-License-Identifier: MIT
#include "host/serve/metric_family.h"

namespace ipplay::serve {

Labels With(Labels labels, const std::string& name, const std::string& value) {
  labels.emplace_back(name, value);
  return labels;
}

MetricFamily::MetricFamily(std::string name, std::string help, prometheus::MetricType type) {
  family_.name = std::move(name);
  family_.help = std::move(help);
  family_.type = type;
}

prometheus::ClientMetric& MetricFamily::Append(const Labels& labels) {
  prometheus::ClientMetric& metric = family_.metric.emplace_back();
  for (const auto& [name, value] : labels) {
    metric.label.push_back({name, value});
  }
  return metric;
}

void MetricFamily::Add(const Labels& labels, std::optional<double> value) {
  if (!value) {
    return;
  }
  prometheus::ClientMetric& metric = Append(labels);
  if (family_.type == prometheus::MetricType::Counter) {
    metric.counter.value = *value;
  } else {
    metric.gauge.value = *value;
  }
}

void MetricFamily::AddStates(const Labels& labels, std::span<const std::string_view> states,
                             std::string_view state) {
  for (const std::string_view other : states) {
    Add(With(labels, "state", std::string(other)), std::uint64_t{other == state});
  }
}

void MetricFamily::AddHistogram(const Labels& labels, std::span<const Bucket> buckets,
                                std::uint64_t count, double sum) {
  prometheus::ClientMetric::Histogram& histogram = Append(labels).histogram;
  histogram.sample_count = count;
  histogram.sample_sum = sum;
  for (const Bucket& bucket : buckets) {
    histogram.bucket.push_back({bucket.count, bucket.up_to});
  }
}

}  // namespace ipplay::serve
