// SPDX-License-Identifier: MIT
#include "host/measure/results/event_words.h"

#include <fmt/format.h>

#include <array>
#include <chrono>

#include "host/base/units.h"

namespace ipplay::measure {
namespace {

enum class Amount { kNone, kCount, kPackets, kTime, kJump, kRate, kTable, kChecksum, kLink };

struct Words {
  const char* text;
  Amount amount = Amount::kNone;
};

// By EventKind, in its order.
constexpr std::array<Words, kEventKinds> kWords{{
    {"lost", Amount::kPackets},                             // kLoss
    {"repeated", Amount::kPackets},                         // kRepeat
    {"places out of order", Amount::kCount},                // kReordered
    {"the sender started anew"},                            // kRestart
    {"without a frame", Amount::kTime},                     // kSilence
    {"is not the rate that was asked for", Amount::kRate},  // kRate
    {"checksum wrong", Amount::kChecksum},                  // kChecksum
    {"TS sync loss"},                                       // kSyncLoss
    {"sync byte error"},                                    // kSyncByte
    {"PAT error", Amount::kTime},                           // kPat
    {"continuity error"},                                   // kContinuity
    {"PMT error", Amount::kTime},                           // kPmt
    {"PID error", Amount::kTime},                           // kPid
    {"transport error"},                                    // kTransport
    {"CRC error", Amount::kTable},                          // kCrc
    {"PCR repetition error", Amount::kTime},                // kPcrRepetition
    {"PCR discontinuity", Amount::kJump},                   // kPcrDiscontinuity
    {"PCR accuracy error", Amount::kTime},                  // kPcrAccuracy
    {"PTS error", Amount::kTime},                           // kPts
    {"CAT error"},                                          // kCat
    {"SI repetition error", Amount::kTime},                 // kSiRepetition
    {"unreferenced PID"},                                   // kUnreferencedPid
    {"frames dropped by the capture", Amount::kCount},      // kCaptureDrop
    {"link", Amount::kLink},                                // kLink
}};

const Words& WordsOf(EventKind kind) {
  return kWords[static_cast<std::size_t>(kind)];
}

}  // namespace

std::string EventText(const Event& event) {
  const auto [text, amount] = WordsOf(event.kind);
  const auto time = [&] { return FormatDuration(std::chrono::nanoseconds(event.amount)); };
  switch (amount) {
    case Amount::kNone:
      break;
    case Amount::kCount:
      return fmt::format("{} {}", FormatCount(static_cast<std::uint64_t>(event.amount)), text);
    case Amount::kPackets:
      return fmt::format("{} {} {}", FormatCount(static_cast<std::uint64_t>(event.amount)),
                         event.amount == 1 ? "packet" : "packets", text);
    case Amount::kTime:
      // 0 where the fault is not one of time, such as a scrambled table.
      return event.kind == EventKind::kSilence ? fmt::format("{} {}", time(), text)
             : event.amount > 0                ? fmt::format("{}, {}", text, time())
                                               : text;
    case Amount::kJump:
      return fmt::format("{} of {}", text, time());
    case Amount::kRate:
      return fmt::format("{} {}", FormatBitRate(static_cast<double>(event.amount)), text);
    case Amount::kTable:
      return fmt::format("{}, table 0x{:02X}", text, event.amount);
    case Amount::kChecksum:
      return fmt::format("{} {}", event.amount == 4 ? "IPv4 header" : "UDP", text);
    case Amount::kLink:
      return fmt::format("{} {}", text, event.amount == 0 ? "down" : "up");
  }
  return text;
}

}  // namespace ipplay::measure
