// SPDX-License-Identifier: MIT
#include "host/play/play_values.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "host/base/numbers.h"
#include "host/base/units.h"
#include "ipplayout/ipplayout.h"
#include "ipplayout/playouts.h"

namespace ipplay {
namespace {

constexpr std::uint64_t kMaxU32 = UINT32_MAX;

// "a<separator>b" in two parts; nothing without separator.
std::optional<std::pair<std::string_view, std::string_view>> Split(std::string_view text,
                                                                   char separator) {
  const std::size_t at = text.find(separator);
  if (at == std::string_view::npos) {
    return std::nullopt;
  }
  return std::pair(text.substr(0, at), text.substr(at + 1));
}

template <typename Value>
struct Named {
  std::string_view name;
  Value value;
};

template <typename Value, std::size_t N>
std::optional<Value> Find(const std::array<Named<Value>, N>& table, std::string_view name) {
  const auto entry = std::find_if(table.begin(), table.end(),
                                  [name](const Named<Value>& item) { return item.name == name; });
  if (entry == table.end()) {
    return std::nullopt;
  }
  return entry->value;
}

enum class StepForm { kMac, kIp, kNumber };
struct StepKind {
  StepField field;
  StepForm form;
  std::uint64_t highest;
};
constexpr std::array<Named<StepKind>, 14> kSteps{{
    {"dst-mac", {StepField::kDstMac, StepForm::kMac, 0}},
    {"src-mac", {StepField::kSrcMac, StepForm::kMac, 0}},
    {"ethertype", {StepField::kEtherType, StepForm::kNumber, 0xFFFF}},
    {"vlan", {StepField::kVlan, StepForm::kNumber, 4095}},
    {"dst-ip", {StepField::kDstIp, StepForm::kIp, 0}},
    {"src-ip", {StepField::kSrcIp, StepForm::kIp, 0}},
    {"ttl", {StepField::kTtl, StepForm::kNumber, 255}},
    {"tos", {StepField::kTos, StepForm::kNumber, 255}},
    {"protocol", {StepField::kProtocol, StepForm::kNumber, 255}},
    {"flow-label", {StepField::kFlowLabel, StepForm::kNumber, 0xFFFFF}},
    {"dst-port", {StepField::kDstPort, StepForm::kNumber, 65535}},
    {"src-port", {StepField::kSrcPort, StepForm::kNumber, 65535}},
    {"payload-type", {StepField::kPayloadType, StepForm::kNumber, 127}},
    {"ssrc", {StepField::kSsrc, StepForm::kNumber, kMaxU32}},
}};

constexpr std::array<Named<std::uint32_t>, 6> kPriorities{
    {{"idle", IPPLAYOUT_PRIORITY_IDLE},
     {"below-normal", IPPLAYOUT_PRIORITY_BELOW_NORMAL},
     {"normal", IPPLAYOUT_PRIORITY_NORMAL},
     {"above-normal", IPPLAYOUT_PRIORITY_ABOVE_NORMAL},
     {"highest", IPPLAYOUT_PRIORITY_HIGHEST},
     {"time-critical", IPPLAYOUT_PRIORITY_TIME_CRITICAL}}};

constexpr std::array<Named<std::uint32_t>, 4> kLate{{{"bounded", IPPLAYOUT_LATE_BOUNDED},
                                                     {"catch-up", IPPLAYOUT_LATE_CATCH_UP},
                                                     {"shift", IPPLAYOUT_LATE_SHIFT},
                                                     {"drop", IPPLAYOUT_LATE_DROP}}};

constexpr std::array<Named<std::uint32_t>, 4> kDistributions{
    {{"square", IPPLAYOUT_JITTER_SQUARE},
     {"gaussian", IPPLAYOUT_JITTER_GAUSSIAN},
     {"squared-difference", IPPLAYOUT_JITTER_SQUARED_DIFFERENCE},
     {"sine", IPPLAYOUT_JITTER_SINE}}};

constexpr std::array<Named<ActionKind>, 7> kActions{
    {{"lose", ActionKind::kLose},
     {"delay", ActionKind::kDelay},
     {"bad-ip-checksum", ActionKind::kBadIpChecksum},
     {"bad-udp-checksum", ActionKind::kBadUdpChecksum},
     {"pause", ActionKind::kPause},
     {"resume", ActionKind::kResume},
     {"stop", ActionKind::kStop}}};

}  // namespace

std::optional<ErrorSchedule> ParseErrorSchedule(std::string_view text) {
  const auto parts = Split(text, '/');
  if (!parts) {
    return std::nullopt;
  }
  const auto range = ParseNumber(parts->second, 1, kMaxU32);
  if (!range) {
    return std::nullopt;
  }
  const auto count =
      ParseNumber(parts->first, 1, std::min<std::uint64_t>(*range, kMostErrorsInRange));
  if (!count) {
    return std::nullopt;
  }
  return ErrorSchedule{static_cast<std::uint32_t>(*count), static_cast<std::uint32_t>(*range)};
}

std::optional<DelaySchedule> ParseDelaySchedule(std::string_view text) {
  DelaySchedule schedule;
  if (const auto parts = Split(text, ':')) {
    const auto distance = ParseNumber(parts->second, 1, kMaxU32 - 1);
    if (!distance) {
      return std::nullopt;
    }
    schedule.distance = static_cast<std::uint32_t>(*distance);
    text = parts->first;
  }
  const auto errors = ParseErrorSchedule(text);
  if (!errors) {
    return std::nullopt;
  }
  schedule.errors = *errors;
  return schedule;
}

std::optional<Burst> ParseBurst(std::string_view text) {
  if (const auto datagrams = ParseNumber(text, 1, kMaxU32)) {
    return Burst{.datagrams = static_cast<std::uint32_t>(*datagrams)};
  }
  const auto duration = ParseDuration(text);
  if (!duration || duration->count() <= 0 || duration->count() % 1'000'000 != 0) {
    return std::nullopt;
  }
  const auto milliseconds = static_cast<std::uint64_t>(duration->count()) / 1'000'000;
  if (milliseconds > kMaxU32) {
    return std::nullopt;
  }
  return Burst{.by_time = true, .milliseconds = static_cast<std::uint32_t>(milliseconds)};
}

std::optional<Jitter> ParseJitter(std::string_view text) {
  const auto parts = Split(text, ':');
  if (!parts) {
    return std::nullopt;
  }
  const auto distribution = Find(kDistributions, parts->first);
  if (!distribution) {
    return std::nullopt;
  }
  if (*distribution == IPPLAYOUT_JITTER_SQUARE) {
    const auto peak = ParseDuration(parts->second);
    if (!peak || peak->count() <= 0 || *peak > std::chrono::seconds(10)) {
      return std::nullopt;
    }
    return Jitter{*distribution, static_cast<float>(static_cast<double>(peak->count()) / 1000)};
  }
  const auto percent = ParsePercent(parts->second);
  if (!percent || *percent <= 0 || *percent > 100) {
    return std::nullopt;
  }
  return Jitter{*distribution, static_cast<float>(*percent)};
}

std::optional<StartValue> ParseStartValue(std::string_view text, std::uint32_t highest) {
  if (text == "random") {
    return StartValue{};
  }
  const auto value = ParseNumber(text, 0, highest);
  if (!value) {
    return std::nullopt;
  }
  return StartValue{false, static_cast<std::uint32_t>(*value)};
}

std::optional<std::uint32_t> ParsePriority(std::string_view text) {
  return Find(kPriorities, text);
}

std::optional<std::uint32_t> ParseLate(std::string_view text) {
  return Find(kLate, text);
}

std::optional<std::optional<std::uint64_t>> ParseRounds(std::string_view text) {
  if (text == "forever") {
    return std::optional<std::uint64_t>{};
  }
  const auto rounds = ParseNumber(text, 1, kMaxU32);
  if (!rounds) {
    return std::nullopt;
  }
  return rounds;
}

std::optional<Action> ParseAction(std::string_view text) {
  Action action;
  if (const auto parts = Split(text, ':')) {
    const auto length = ParseDuration(parts->second);
    if (!length || length->count() <= 0 || parts->first != "pause") {
      return std::nullopt;
    }
    action.length = *length;
    text = parts->first;
  }
  const auto kind = Find(kActions, text);
  if (!kind) {
    return std::nullopt;
  }
  action.kind = *kind;
  return action;
}

std::optional<Step> ParseStep(std::string_view text) {
  const auto parts = Split(text, '=');
  if (!parts) {
    return std::nullopt;
  }
  const auto kind = Find(kSteps, parts->first);
  if (!kind) {
    return std::nullopt;
  }
  Step step{.field = kind->field};
  if (kind->form == StepForm::kMac) {
    const auto mac = ParseMac(parts->second);
    if (!mac) {
      return std::nullopt;
    }
    step.mac = *mac;
  } else if (kind->form == StepForm::kIp) {
    const auto ip = ParseIp(parts->second);
    if (!ip) {
      return std::nullopt;
    }
    step.ip = *ip;
  } else {
    const auto number = ParseNumber(parts->second, 0, kind->highest);
    if (!number) {
      return std::nullopt;
    }
    step.number = static_cast<std::uint32_t>(*number);
  }
  return step;
}

std::string_view NameOf(StepField field) {
  return std::find_if(kSteps.begin(), kSteps.end(),
                      [field](const auto& item) { return item.value.field == field; })
      ->name;
}

}  // namespace ipplay
