// SPDX-License-Identifier: MIT
#include "host/lineup/part.h"

#include <fmt/format.h>

#include "host/base/name_hash.h"
#include "host/base/numbers.h"
#include "host/base/text.h"

namespace ipplay {
namespace {

using Count = std::optional<std::uint64_t>;

// What a scheduler has set, and the first thing about it that cannot be.
class JobVariables {
 public:
  explicit JobVariables(const Environment& environment) : environment_(environment) {}

  Count Number(const char* name) {
    const char* const text = environment_(name);
    if (text == nullptr) {
      return std::nullopt;
    }
    const Count number = ParseNumber(text, 0, UINT32_MAX);
    if (!number) {
      Refuse(fmt::format("{} is {}, not a whole number", name, Quoted(text)));
    }
    return number.value_or(0);
  }
  // One part for several processes would play each of its channels several times.
  void RefuseTasksWithin(const char* outer, const char* tasks) {
    if (const Count count = Number(tasks); count && *count > 1) {
      Refuse(fmt::format("{} is one part, and {} says that {} processes have it", outer, tasks,
                         *count));
    }
  }
  void Refuse(std::string why) {
    if (!mistake_) {
      mistake_ = UsageFailure(fmt::format("--part: {}; give K/N", why));
    }
  }
  const std::optional<Failure>& Mistake() const { return mistake_; }

 private:
  const Environment& environment_;
  std::optional<Failure> mistake_;
};

// Counted from 0.
struct Place {
  std::uint64_t index = 0;
  Count of;
};

Place PlaceInArray(std::uint64_t task, JobVariables& job) {
  const std::uint64_t first = job.Number("SLURM_ARRAY_TASK_MIN").value_or(0);
  const std::uint64_t step = job.Number("SLURM_ARRAY_TASK_STEP").value_or(1);
  if (task < first || step == 0 || (task - first) % step != 0) {
    job.Refuse(fmt::format("SLURM_ARRAY_TASK_ID {} is not among those from {} in steps of {}", task,
                           first, step));
    return {};
  }
  job.RefuseTasksWithin("SLURM_ARRAY_TASK_ID", "SLURM_STEP_NUM_TASKS");
  job.RefuseTasksWithin("SLURM_ARRAY_TASK_ID", "OMPI_COMM_WORLD_SIZE");
  return {(task - first) / step, job.Number("SLURM_ARRAY_TASK_COUNT")};
}

std::optional<Place> PlaceInJob(JobVariables& job) {
  if (const auto task = job.Number("SLURM_ARRAY_TASK_ID")) {
    return PlaceInArray(*task, job);
  }
  if (const auto index = job.Number("JOB_COMPLETION_INDEX")) {
    job.RefuseTasksWithin("JOB_COMPLETION_INDEX", "OMPI_COMM_WORLD_SIZE");
    return Place{*index, std::nullopt};
  }
  if (const auto rank = job.Number("OMPI_COMM_WORLD_RANK")) {
    return Place{*rank, job.Number("OMPI_COMM_WORLD_SIZE")};
  }
  if (const auto rank = job.Number("SLURM_PROCID")) {
    // Of the step; the job may have more.
    const Count of_step = job.Number("SLURM_STEP_NUM_TASKS");
    return Place{*rank, of_step ? of_step : job.Number("SLURM_NTASKS")};
  }
  return std::nullopt;
}

Result<Part> PartOfJob(Count of, const Environment& environment) {
  JobVariables job(environment);
  const auto place = PlaceInJob(job);
  if (job.Mistake()) {
    return *job.Mistake();
  }
  if (!place) {
    return UsageFailure(
        "--part: auto needs SLURM_ARRAY_TASK_ID, JOB_COMPLETION_INDEX, OMPI_COMM_WORLD_RANK or "
        "SLURM_PROCID in the environment; give K/N");
  }
  if (of && place->of && *of != *place->of) {
    return UsageFailure(fmt::format(
        "--part: auto/{} contradicts the environment, which says {} parts; give auto or K/N", *of,
        *place->of));
  }
  const Count parts = of ? of : place->of;
  if (!parts) {
    return UsageFailure("--part: the environment does not say of how many; give auto/N");
  }
  if (*parts == 0 || *parts > kMostParts || place->index >= *parts) {
    return UsageFailure(
        fmt::format("--part: the environment says index {} of {}; give K/N", place->index, *parts));
  }
  return Part{static_cast<std::uint32_t>(place->index + 1), static_cast<std::uint32_t>(*parts)};
}

// Jump consistent hash (Lamping and Veach, 2014): of one part more, each takes the same share of
// its channels from all others, and no other channel moves.
std::uint32_t PlaceOf(std::string_view channel, std::uint32_t of) {
  constexpr std::uint64_t kLcgFactor = 2862933555777941757U;
  std::uint64_t hash = HashOfName(channel);
  hash = (hash ^ (hash >> 33)) * 0xFF51AFD7ED558CCDU;
  hash ^= hash >> 33;
  std::uint64_t place = 0;
  for (std::uint64_t next = 0; next < of;) {
    place = next;
    hash = hash * kLcgFactor + 1;
    const double jump = static_cast<double>(1ULL << 31) / static_cast<double>((hash >> 33) + 1);
    next = static_cast<std::uint64_t>(static_cast<double>(place + 1) * jump);
  }
  return static_cast<std::uint32_t>(place);
}

}  // namespace

bool Part::Has(std::string_view channel) const {
  return PlaceOf(channel, of) == number - 1;
}

std::string Part::Text() const {
  return fmt::format("{}/{}", number, of);
}

Result<Part> ParsePart(std::string_view text, const Environment& environment) {
  const std::size_t slash = text.find('/');
  const std::string_view first = text.substr(0, slash);
  const bool has_count = slash != std::string_view::npos;
  const Count of = has_count ? ParseNumber(text.substr(slash + 1), 1, kMostParts) : std::nullopt;
  if (first == "auto" && (!has_count || of)) {
    return PartOfJob(of, environment);
  }
  const Count number = of ? ParseNumber(first, 1, *of) : std::nullopt;
  if (!number) {
    return UsageFailure(
        fmt::format("--part: {} is not valid; give K/N with K from 1 to N, auto, or auto/N", text));
  }
  return Part{static_cast<std::uint32_t>(*number), static_cast<std::uint32_t>(*of)};
}

}  // namespace ipplay
