// SPDX-License-Identifier: MIT
// Metrics of Prometheus, family by family.
#pragma once

#include <prometheus/metric_family.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ipplay::serve {

using Labels = std::vector<std::pair<std::string, std::string>>;

// `labels` and one more.
Labels With(Labels labels, const std::string& name, const std::string& value);

class MetricFamily {
 public:
  MetricFamily(std::string name, std::string help, prometheus::MetricType type);

  // Nothing where there is no value.
  void Add(const Labels& labels, std::optional<double> value);
  void Add(const Labels& labels, std::uint64_t value) {
    Add(labels, std::optional(static_cast<double>(value)));
  }
  // 1 for the state that it is in, 0 for each of the others.
  void AddStates(const Labels& labels, std::span<const std::string_view> states,
                 std::string_view state);
  // Counts of values up to each bound, and of all.
  struct Bucket {
    double up_to = 0;
    std::uint64_t count = 0;
  };
  void AddHistogram(const Labels& labels, std::span<const Bucket> buckets, std::uint64_t count,
                    double sum);

  prometheus::MetricFamily Take() { return std::move(family_); }

 private:
  prometheus::ClientMetric& Append(const Labels& labels);

  prometheus::MetricFamily family_;
};

}  // namespace ipplay::serve
