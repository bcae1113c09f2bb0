// SPDX-License-Identifier: MIT
// The files that a measurement writes while it goes on.
#pragma once

#include <memory>
#include <optional>

#include "host/base/line_file.h"
#include "host/measure/figures/measurement.h"
#include "host/measure/measure_options.h"
#include "host/measure/results/event_lines.h"
#include "host/measure/results/second_lines.h"

namespace ipplay::measure {

class LiveFiles {
 public:
  // Those that `options` ask for.
  static Result<LiveFiles> Create(const MeasureOptions& options);

  // Both once. The measurement outlives this.
  void Start(Measurement& measurement, const RunInfo& run);
  void Finish(Measurement& measurement);

  // Why a file is not whole, if one is not.
  std::optional<Failure> WriteFailure() const;

 private:
  std::unique_ptr<LineFile> events_file_;
  std::unique_ptr<EventLines> events_;
  std::unique_ptr<LineFile> seconds_file_;
  SecondLines::Format seconds_format_ = SecondLines::Format::kJson;
  std::unique_ptr<SecondLines> seconds_;
};

}  // namespace ipplay::measure
