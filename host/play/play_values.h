// SPDX-License-Identifier: MIT
// Values of the play options beyond plain numbers, and how users write them.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "host/base/address.h"
#include "host/stream/stream_faults.h"

namespace ipplay {

// "2/1000": `count` out of every `range` datagrams. "0.2%": each with this `chance`, 0 to 1.
struct ErrorSchedule {
  std::uint32_t count = 0;
  std::uint32_t range = 0;
  double chance = 0;
};
inline constexpr std::uint32_t kMostErrorsInRange = 1'000'000;
std::optional<ErrorSchedule> ParseErrorSchedule(std::string_view text);

// "1/1000:3": the same, each overtaken by `distance` later datagrams; ":1" can be left out.
struct DelaySchedule {
  ErrorSchedule errors;
  std::uint32_t distance = 1;
};
std::optional<DelaySchedule> ParseDelaySchedule(std::string_view text);

// "1/1000:3" or "0.1%:3": the same, with `bits` wrong in each; ":1" can be left out.
struct Corruption {
  ErrorSchedule errors;
  std::uint32_t bits = 1;
};
std::optional<Corruption> ParseCorruption(std::string_view text);

// "1%,25%" or up to four parts, as in Gilbert and Elliott: chances to turn bad, to turn good, of a
// loss while it is bad (100%) and while it is good (0%). All are 0 to 1.
struct LossModel {
  double turns_bad = 0;
  double turns_good = 0;
  double lose_while_bad = 1;
  double lose_while_good = 0;
};
std::optional<LossModel> ParseLossModel(std::string_view text);

// "continuity=1/1000", "drop@256=100%", "pcr-jump:150ms=1/50": a fault, of a PID, of a size, and
// how often.
std::optional<StreamFault> ParseStreamFault(std::string_view text);

// "kept", "closed": whether what follows a lost datagram leaves earlier.
std::optional<bool> ParseHoles(std::string_view text);

// "10x5": L columns by D rows, protected by FEC of columns and of rows. "10x5:columns": of columns.
struct FecMatrixOrder {
  std::uint32_t columns = 0;
  std::uint32_t rows = 0;
  bool protects_rows = true;
};
std::optional<FecMatrixOrder> ParseFecMatrix(std::string_view text);

// "10ms": a length of stream time in whole milliseconds. "50": a number of datagrams.
struct Burst {
  bool by_time = false;
  std::uint32_t milliseconds = 0;
  std::uint32_t datagrams = 0;
};
std::optional<Burst> ParseBurst(std::string_view text);

// "square:500us" (peak to peak), "gaussian:20%", "squared-difference:10%", "sine:10%" (of the gap).
struct Jitter {
  std::uint32_t distribution = 0;  // as JitterDistributionType
  float amount = 0;                // microseconds or percent, as JitterPeriod
};
std::optional<Jitter> ParseJitter(std::string_view text);

// "random", or a number.
struct StartValue {
  bool random = true;
  std::uint32_t value = 0;
};
std::optional<StartValue> ParseStartValue(std::string_view text, std::uint32_t highest);

// "idle", "below-normal", "normal", "above-normal", "highest", "time-critical": 0 to 5, as
// PlayerThreadPriority.
std::optional<std::uint32_t> ParsePriority(std::string_view text);

// "bounded", "catch-up", "shift", "drop": as IPPLAYOUT_LATE_...
std::optional<std::uint32_t> ParseLate(std::string_view text);

// "forever", or a number of rounds from 1; an empty inner optional is forever.
std::optional<std::optional<std::uint64_t>> ParseRounds(std::string_view text);

// An order to a running playout, from the time line or a key.
enum class ActionKind {
  kLose,
  kDelay,
  kDuplicate,
  kCorrupt,
  kBadIpChecksum,
  kBadUdpChecksum,
  kBreak,
  kPause,
  kResume,
  kStop,
};
struct Action {
  ActionKind kind = ActionKind::kStop;
  std::chrono::nanoseconds length{0};  // of a pause, 0: until it is resumed; of a break
  std::uint32_t count = 1;             // datagrams in a row
  std::uint32_t amount = 1;            // of a delay: datagrams that overtake; bits to corrupt
  bool of_twin = false;                // on the second path
};
// "lose[:N]", "delay[:D]", "duplicate[:N]", "corrupt[:BITS]", "bad-ip-checksum[:N]",
// "bad-udp-checksum[:N]", "break:TIME", "pause[:TIME]", "resume", "stop"; all but the last three
// also of the second path, as "twin-lose".
std::optional<Action> ParseAction(std::string_view text);

// What is added to a header field from each copy to the next: "dst-ip=0.0.0.1".
enum class StepField {
  kDstMac,
  kSrcMac,
  kEtherType,
  kVlan,
  kDstIp,
  kSrcIp,
  kTtl,
  kTos,
  kProtocol,
  kFlowLabel,
  kDstPort,
  kSrcPort,
  kPayloadType,
  kSsrc,
};
struct Step {
  StepField field = StepField::kDstIp;
  MacAddress mac{};          // of the two MAC addresses
  IpAddress ip{};            // of the two IP addresses
  std::uint32_t number = 0;  // of the others
};
std::optional<Step> ParseStep(std::string_view text);

// "256,257", or "0x100,0x101".
std::optional<std::set<std::uint16_t>> ParsePids(std::string_view text);
// The field's name as in --step.
std::string_view NameOf(StepField field);

}  // namespace ipplay
