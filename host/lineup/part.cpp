// SPDX-License-Identifier: MIT
#include "host/lineup/part.h"

#include <fmt/format.h>

#include "host/base/name_hash.h"
#include "host/base/numbers.h"

namespace ipplay {
namespace {

using Count = std::optional<std::uint64_t>;

Count NumberOf(const Environment& environment, const char* name) {
  const char* const text = environment(name);
  return text == nullptr ? std::nullopt : ParseNumber(text, 0, UINT32_MAX);
}

// Counted from 0.
struct Place {
  std::uint64_t index = 0;
  Count of;
};

std::optional<Place> PlaceInJob(const Environment& environment) {
  const auto number = [&environment](const char* name) { return NumberOf(environment, name); };
  if (const auto task = number("SLURM_ARRAY_TASK_ID")) {
    const std::uint64_t first = number("SLURM_ARRAY_TASK_MIN").value_or(0);
    const std::uint64_t step = number("SLURM_ARRAY_TASK_STEP").value_or(1);
    return Place{*task < first || step == 0 ? UINT64_MAX : (*task - first) / step,
                 number("SLURM_ARRAY_TASK_COUNT")};
  }
  if (const auto index = number("JOB_COMPLETION_INDEX")) {
    return Place{*index, std::nullopt};
  }
  if (const auto rank = number("OMPI_COMM_WORLD_RANK")) {
    return Place{*rank, number("OMPI_COMM_WORLD_SIZE")};
  }
  if (const auto rank = number("SLURM_PROCID")) {
    // Of the step; the job may have more.
    const Count of_step = number("SLURM_STEP_NUM_TASKS");
    return Place{*rank, of_step ? of_step : number("SLURM_NTASKS")};
  }
  return std::nullopt;
}

Result<Part> PartOfJob(Count of, const Environment& environment) {
  const auto place = PlaceInJob(environment);
  if (!place) {
    return UsageFailure(
        "--part: auto needs SLURM_ARRAY_TASK_ID, JOB_COMPLETION_INDEX, OMPI_COMM_WORLD_RANK or "
        "SLURM_PROCID in the environment; give K/N");
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
