// SPDX-License-Identifier: MIT
#include "host/play/changes.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <CLI/App.hpp>
#include <algorithm>
#include <array>

#include "host/base/units.h"
#include "host/library/scheduled_playout.h"
#include "host/play/plan_faults.h"
#include "host/play/plan_rates.h"

namespace ipplay {
namespace {

using std::chrono::nanoseconds;

struct Field {
  std::string_view what;
  std::string_view name;
  bool can_be_off;
  void (*copy)(const PlayOptions& from, PlayOptions& to);
};
constexpr std::array<Field, 11> kFields{
    {{"rate", "bitrate", false, [](const auto& from, auto& to) { to.bit_rate = from.bit_rate; }},
     {"rate", "speed", false, [](const auto& from, auto& to) { to.speed = from.speed; }},
     {"rate", "ppm", false, [](const auto& from, auto& to) { to.ppm = from.ppm; }},
     {"jitter", "jitter", true, [](const auto& from, auto& to) { to.jitter = from.jitter; }},
     {"errors", "lose", true, [](const auto& from, auto& to) { to.lose = from.lose; }},
     {"errors", "loss-model", true,
      [](const auto& from, auto& to) { to.loss_model = from.loss_model; }},
     {"errors", "delay", true, [](const auto& from, auto& to) { to.delay = from.delay; }},
     {"errors", "duplicate", true,
      [](const auto& from, auto& to) { to.duplicate = from.duplicate; }},
     {"errors", "corrupt", true, [](const auto& from, auto& to) { to.corrupt = from.corrupt; }},
     {"errors", "bad-ip-checksum", true,
      [](const auto& from, auto& to) { to.bad_ip_checksum = from.bad_ip_checksum; }},
     {"errors", "bad-udp-checksum", true,
      [](const auto& from, auto& to) { to.bad_udp_checksum = from.bad_udp_checksum; }}}};

Failure UnknownField(const ChangeRequest& request, const std::string& name) {
  std::vector<std::string_view> names;
  for (const Field& field : kFields) {
    if (field.what == request.what) {
      names.push_back(field.name);
    }
  }
  return UsageFailure(name.empty() ? fmt::format("\"{}\" has no value; give {}", request.what,
                                                 fmt::join(names, ", "))
                                   : fmt::format("\"{}\" is none of \"{}\"; give {}", name,
                                                 request.what, fmt::join(names, ", ")));
}

// By the rules of the option of the same name.
std::optional<Failure> Read(const Field& field, const std::string& text, PlayOptions& options) {
  PlayOptions given;
  CLI::App app;
  DefinePlayOptions(app, given);
  if (text != "off" || !field.can_be_off) {
    CLI::Option* const option = app.get_option(fmt::format("--{}", field.name));
    try {
      option->add_result(text);
      option->run_callback();
    } catch (const CLI::ParseError& error) {
      return UsageFailure(fmt::format("{}{}", error.what(), field.can_be_off ? ", or off" : ""));
    }
  }
  field.copy(given, options);
  return std::nullopt;
}

}  // namespace

bool IsChange(std::string_view what) {
  return std::any_of(kFields.begin(), kFields.end(),
                     [what](const Field& field) { return field.what == what; });
}

std::string Describe(const ChangeRequest& request) {
  std::string text = request.what;
  for (const auto& [name, value] : request.fields) {
    text += fmt::format(" {} {}", name, value);
  }
  return text;
}

Result<PlayOptions> Changes::With(const ChangeRequest& request) const {
  PlayOptions changed = now_;
  changed.bit_rate.reset();
  for (const auto& [name, text] : request.fields) {
    const auto* const field =
        std::find_if(kFields.begin(), kFields.end(), [&name = name, &request](const Field& each) {
          return each.name == name && each.what == request.what;
        });
    if (field == kFields.end()) {
      return UnknownField(request, name);
    }
    if (auto failure = Read(*field, text, changed)) {
      return *std::move(failure);
    }
  }
  if (request.fields.empty()) {
    return UnknownField(request, "");
  }
  if (changed.bit_rate) {
    changed.speed = *changed.bit_rate * SpeedOf(options_) / plan_.rates.stream;
  }
  if (request.what == "rate") {
    if (auto failure = CheckRate(changed, request)) {
      return *std::move(failure);
    }
  }
  if (auto failure = CheckFaults(changed)) {
    return *std::move(failure);
  }
  return changed;
}

std::optional<Failure> Changes::CheckRate(const PlayOptions& changed,
                                          const ChangeRequest& request) const {
  constexpr double kMost = 1000;  // times the plan's
  constexpr double kShortestGapNs = 5000;
  if (plan_.lead) {
    return UsageFailure(
        "rate: the clock of INPUT is followed, as it comes once; only a file is played faster or "
        "slower");
  }
  const auto has = [&request](std::string_view name) {
    return std::any_of(request.fields.begin(), request.fields.end(),
                       [name](const auto& field) { return field.first == name; });
  };
  if (changed.bit_rate && has("speed")) {
    return UsageFailure("bitrate and speed exclude each other; give one");
  }
  if (changed.bit_rate && plan_.pcr_rate && plan_.pcr_rate->IsVariable()) {
    return UsageFailure(
        "bitrate: the stream's rate varies, and it is played at the times of its PCRs; give speed");
  }
  const double ratio = SpeedOf(changed) / SpeedOf(options_);
  const double most =
      std::min(kMost, static_cast<double>(plan_.rates.gap.count()) / kShortestGapNs);
  if (ratio > most || ratio < 1 / kMost) {
    return UsageFailure(fmt::format(
        "rate: {} is out of range; give {} to {}, with which frames are at least 5 us apart",
        FormatBitRate(plan_.rates.stream * ratio), FormatBitRate(plan_.rates.stream / kMost),
        FormatBitRate(plan_.rates.stream * most)));
  }
  return std::nullopt;
}

Change Changes::Of(const PlayOptions& changed) const {
  return {.speed = SpeedOf(changed) / SpeedOf(options_),
          .errors = ErrorsFor(changed),
          .faults = FaultsFor(changed, ScheduledPlayout::Defaults().Faults),
          .shape = ShapeFor(changed, plan_.rates.batch)};
}

double Changes::RateOf(const PlayOptions& changed) const {
  return plan_.rates.stream * SpeedOf(changed) / SpeedOf(options_);
}

// Some 50 ms or two bursts are built ahead, or 16 frames where these take longer.
nanoseconds Changes::Lead() const {
  constexpr nanoseconds kUsual = std::chrono::milliseconds(100);
  constexpr std::uint64_t kFrames = 20;
  const double gaps = static_cast<double>(kFrames + 2 * plan_.rates.batch);
  const double slowest = SpeedOf(options_) / std::min(SpeedOf(now_), SpeedOf(options_));
  const auto built = std::chrono::duration<double, std::nano>(plan_.rates.gap) * gaps * slowest;
  return kUsual + std::chrono::duration_cast<nanoseconds>(built);
}

}  // namespace ipplay
