// SPDX-License-Identifier: MIT
#include "host/play/play_values.h"

#include <algorithm>
#include <array>
#include <iterator>
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

// What may follow the action's name behind a colon.
enum class With { kNothing, kCount, kDistance, kBits, kTime };
struct ActionForm {
  ActionKind kind;
  With with;
  bool needs_it = false;
};
constexpr std::array<Named<ActionForm>, 10> kActions{
    {{"lose", {ActionKind::kLose, With::kCount}},
     {"delay", {ActionKind::kDelay, With::kDistance}},
     {"duplicate", {ActionKind::kDuplicate, With::kCount}},
     {"corrupt", {ActionKind::kCorrupt, With::kBits}},
     {"bad-ip-checksum", {ActionKind::kBadIpChecksum, With::kCount}},
     {"bad-udp-checksum", {ActionKind::kBadUdpChecksum, With::kCount}},
     {"break", {ActionKind::kBreak, With::kTime, true}},
     {"pause", {ActionKind::kPause, With::kTime}},
     {"resume", {ActionKind::kResume, With::kNothing}},
     {"stop", {ActionKind::kStop, With::kNothing}}}};

constexpr std::uint64_t kMostDatagrams = 1'000'000;
constexpr std::uint64_t kMostBits = 1000;

bool ReadDetail(std::string_view text, With with, Action& action) {
  if (with == With::kTime) {
    const auto length = ParseDuration(text);
    action.length = length.value_or(std::chrono::nanoseconds(0));
    return action.length.count() > 0;
  }
  const auto number = ParseNumber(text, 1, with == With::kBits ? kMostBits : kMostDatagrams);
  if (!number || with == With::kNothing) {
    return false;
  }
  (with == With::kCount ? action.count : action.amount) = static_cast<std::uint32_t>(*number);
  return true;
}

// "5%" to 0.05.
std::optional<double> ParseChance(std::string_view text, bool may_be_zero) {
  const auto percent = ParsePercent(text);
  if (!percent || *percent > 100 || (*percent <= 0 && !may_be_zero)) {
    return std::nullopt;
  }
  return *percent / 100;
}

// "SCHEDULE:NUMBER" or "SCHEDULE".
std::optional<std::pair<ErrorSchedule, std::uint32_t>> ParseWithNumber(std::string_view text,
                                                                       std::uint64_t most) {
  std::uint32_t number = 1;
  if (const auto parts = Split(text, ':')) {
    const auto given = ParseNumber(parts->second, 1, most);
    if (!given) {
      return std::nullopt;
    }
    number = static_cast<std::uint32_t>(*given);
    text = parts->first;
  }
  const auto errors = ParseErrorSchedule(text);
  return errors ? std::optional(std::pair(*errors, number)) : std::nullopt;
}

}  // namespace

std::optional<ErrorSchedule> ParseErrorSchedule(std::string_view text) {
  if (const auto chance = ParseChance(text, false)) {
    return ErrorSchedule{.chance = *chance};
  }
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
  const auto parsed = ParseWithNumber(text, kMaxU32 - 1);
  return parsed ? std::optional(DelaySchedule{parsed->first, parsed->second}) : std::nullopt;
}

std::optional<Corruption> ParseCorruption(std::string_view text) {
  const auto parsed = ParseWithNumber(text, kMostBits);
  return parsed ? std::optional(Corruption{parsed->first, parsed->second}) : std::nullopt;
}

std::optional<LossModel> ParseLossModel(std::string_view text) {
  LossModel model;
  double* const kFields[] = {&model.turns_bad, &model.turns_good, &model.lose_while_bad,
                             &model.lose_while_good};
  std::size_t given = 0;
  for (std::optional<std::string_view> rest = text; rest && given < std::size(kFields); ++given) {
    const auto parts = Split(*rest, ',');
    const auto chance = ParseChance(parts ? parts->first : *rest, given >= 2);
    if (!chance) {
      return std::nullopt;
    }
    *kFields[given] = *chance;
    rest = parts ? std::optional(parts->second) : std::nullopt;
    if (rest && given + 1 == std::size(kFields)) {
      return std::nullopt;
    }
  }
  return given >= 2 ? std::optional(model) : std::nullopt;
}

std::optional<StreamFault> ParseStreamFault(std::string_view text) {
  constexpr std::uint64_t kHighestPid = 8191;
  const auto parts = Split(text, '=');
  const auto errors = parts ? ParseErrorSchedule(parts->second) : std::nullopt;
  if (!errors) {
    return std::nullopt;
  }
  StreamFault fault;
  fault.count = errors->count;
  fault.range = errors->range;
  fault.chance = errors->chance;
  std::string_view name = parts->first;
  const auto sized = Split(name, ':');
  if (sized) {
    const bool is_back = sized->second.starts_with('-');
    const auto amount = ParseDuration(sized->second.substr(is_back ? 1 : 0));
    if (!amount || amount->count() == 0 || *amount > std::chrono::hours(24)) {
      return std::nullopt;
    }
    fault.amount = is_back ? -*amount : *amount;
    name = sized->first;
  }
  if (const auto of_pid = Split(name, '@')) {
    const auto pid = ParseNumber(of_pid->second, 0, kHighestPid);
    if (!pid) {
      return std::nullopt;
    }
    fault.pid = static_cast<std::uint16_t>(*pid);
    name = of_pid->first;
  }
  const auto kind = StreamFaultNamed(name);
  const bool is_jitter_back = kind == StreamFaultKind::kPcrJitter && fault.amount.count() < 0;
  if (!kind || HasAmount(*kind) != sized.has_value() || is_jitter_back) {
    return std::nullopt;
  }
  fault.kind = *kind;
  return fault;
}

std::optional<bool> ParseHoles(std::string_view text) {
  constexpr std::array<Named<bool>, 2> kHoles{{{"kept", false}, {"closed", true}}};
  return Find(kHoles, text);
}

// SMPTE ST 2022-1, 6.
std::optional<FecMatrixOrder> ParseFecMatrix(std::string_view text) {
  constexpr std::uint64_t kMostColumns = 20;
  constexpr std::uint64_t kLeastRows = 4;
  constexpr std::uint64_t kMostRows = 20;
  constexpr std::uint64_t kLargestMatrix = 100;
  FecMatrixOrder matrix;
  if (const auto parts = Split(text, ':')) {
    if (parts->second != "columns") {
      return std::nullopt;
    }
    matrix.protects_rows = false;
    text = parts->first;
  }
  const auto sides = Split(text, 'x');
  const auto columns = sides ? ParseNumber(sides->first, 1, kMostColumns) : std::nullopt;
  const auto rows = sides ? ParseNumber(sides->second, kLeastRows, kMostRows) : std::nullopt;
  if (!columns || !rows || *columns * *rows > kLargestMatrix) {
    return std::nullopt;
  }
  matrix.columns = static_cast<std::uint32_t>(*columns);
  matrix.rows = static_cast<std::uint32_t>(*rows);
  return matrix;
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
  constexpr std::string_view kTwin = "twin-";
  const bool of_twin = text.starts_with(kTwin);
  text.remove_prefix(of_twin ? kTwin.size() : 0);
  const auto parts = Split(text, ':');
  const auto form = Find(kActions, parts ? parts->first : text);
  if (!form || (of_twin && form->kind >= ActionKind::kPause)) {
    return std::nullopt;
  }
  Action action{.kind = form->kind, .of_twin = of_twin};
  if (parts ? !ReadDetail(parts->second, form->with, action) : form->needs_it) {
    return std::nullopt;
  }
  return action;
}

std::optional<std::set<std::uint16_t>> ParsePids(std::string_view text) {
  constexpr std::uint16_t kHighest = 0x1FFE;  // the next one is that of null packets
  std::set<std::uint16_t> pids;
  std::size_t at = 0;
  while (at <= text.size()) {
    const std::size_t end = std::min(text.find(',', at), text.size());
    const auto pid = ParseNumber(text.substr(at, end - at), 0, kHighest);
    if (!pid) {
      return std::nullopt;
    }
    pids.insert(static_cast<std::uint16_t>(*pid));
    at = end + 1;
  }
  return pids;
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
