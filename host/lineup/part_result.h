// SPDX-License-Identifier: MIT
// What a part of a lineup has written to its file in the folder of results, read again: by those
// who gather, and by a part that runs once more.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/base/json.h"
#include "host/base/result.h"
#include "host/lineup/part.h"

namespace ipplay {

// A run of a part that did not come to its end: its machine failed, or it was killed.
struct BrokenRun {
  std::string machine;
  std::int64_t started_ns = 0;  // since 1970, as all
  std::int64_t updated_ns = 0;  // when it was last heard of
};

struct PartResult {
  Part part;
  std::string file;     // its name in the folder
  std::string outcome;  // "running", "ended" or "failed"
  std::string machine;
  std::optional<std::int64_t> clock_error_ns;
  std::optional<std::int64_t> start_at_ns;  // as ordered for all parts of the run
  std::optional<std::int64_t> started_ns, updated_ns;
  std::optional<std::int64_t> first_start_ns;  // of any channel
  std::vector<BrokenRun> broken_runs;          // before this one, the oldest first
  std::vector<Json> channels;                  // objects, as docs/json.md has them
};

std::string PartFileName(const Part& part);  // "part-3-of-8.json"

// A failure says what is wrong with the file.
Result<PartResult> ReadPartResult(const std::string& folder, const std::string& file);

// Those of a part that is about to run again: of the result that its file still has, if that says
// that it runs.
std::vector<BrokenRun> BrokenRunsBefore(const std::string& folder, const Part& part);

Json JsonOf(const std::vector<BrokenRun>& runs);

// What stands at a path such as "/departures/late", or none where it is null, missing, of another
// kind, or so large that a difference of two would not be a number any more.
std::optional<std::int64_t> NumberAt(const Json& json, const char* path);
std::string TextAt(const Json& json, const char* path);  // empty for none

}  // namespace ipplay
