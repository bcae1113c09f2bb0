// SPDX-License-Identifier: MIT
#include "host/lineup/gather.h"

#include "host/base/library_output.h"
#include "host/base/output_file.h"
#include "host/lineup/gather_views.h"
#include "host/measure/measure_run.h"

namespace ipplay {

Result<int> Gather(const GatherOptions& options) {
  const auto gathered = ReadParts(options.folder, options.lineup);
  if (!gathered) {
    return gathered.Error();
  }
  auto wrong = FindFailures(*gathered);
  const bool failed = !wrong.empty();
  const auto unmet = FindUnmet(*gathered, options.limits);
  wrong.insert(wrong.end(), unmet.begin(), unmet.end());
  if (!options.report.empty()) {
    const auto file = OutputFile::Create("--report", options.report);
    if (!file) {
      return file.Error();
    }
    if (const auto failure = file->Commit(GatheredPage(*gathered, wrong))) {
      return *failure;
    }
  }
  Print(Results(), "{}{}",
        options.json ? GatheredJson(*gathered, wrong) : GatheredTable(*gathered, wrong),
        options.json ? "\n" : "");
  if (failed) {
    return static_cast<int>(ExitStatus::kFailed);
  }
  return unmet.empty() ? static_cast<int>(ExitStatus::kPlayed) : measure::kLimitsNotMet;
}

}  // namespace ipplay
