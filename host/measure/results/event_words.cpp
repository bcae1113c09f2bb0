// SPDX-License-Identifier: MIT
#include "host/measure/results/event_words.h"

#include <fmt/format.h>

#include <array>
#include <chrono>

#include "host/base/units.h"

namespace ipplay::measure {
namespace {

enum class Amount {
  kNone,
  kCount,
  kPackets,
  kMissing,
  kTime,
  kJump,
  kRate,
  kTable,
  kChecksum,
  kLink
};

struct Words {
  const char* name;
  const char* text;
  Amount amount = Amount::kNone;
};

// By EventKind, in its order.
constexpr std::array<Words, kEventKinds> kWords{{
    {"loss", "lost", Amount::kPackets},                                 // kLoss
    {"repeat", "repeated", Amount::kPackets},                           // kRepeat
    {"reordered", "places out of order", Amount::kCount},               // kReordered
    {"restart", "the sender restarted"},                                // kRestart
    {"silence_began", "without a frame so far", Amount::kTime},         // kSilenceBegan
    {"silence", "without a frame", Amount::kTime},                      // kSilence
    {"rate", "is not the rate of the seconds before", Amount::kRate},   // kRate
    {"checksum", "checksum wrong", Amount::kChecksum},                  // kChecksum
    {"sync_loss", "TS sync loss"},                                      // kSyncLoss
    {"sync_byte", "sync byte error"},                                   // kSyncByte
    {"pat", "PAT error", Amount::kTime},                                // kPat
    {"continuity", "continuity error", Amount::kMissing},               // kContinuity
    {"pmt", "PMT error", Amount::kTime},                                // kPmt
    {"pid", "PID error", Amount::kTime},                                // kPid
    {"transport", "transport error"},                                   // kTransport
    {"crc", "CRC error", Amount::kTable},                               // kCrc
    {"pcr_repetition", "PCR repetition error", Amount::kTime},          // kPcrRepetition
    {"pcr_discontinuity", "PCR discontinuity", Amount::kJump},          // kPcrDiscontinuity
    {"pcr_accuracy", "PCR accuracy error", Amount::kTime},              // kPcrAccuracy
    {"pts", "PTS error", Amount::kTime},                                // kPts
    {"cat", "CAT error"},                                               // kCat
    {"si_repetition", "SI repetition error", Amount::kTime},            // kSiRepetition
    {"unreferenced_pid", "unreferenced PID"},                           // kUnreferencedPid
    {"capture_drop", "frames dropped by the capture", Amount::kCount},  // kCaptureDrop
    {"link", "link", Amount::kLink},                                    // kLink
    {"clock_step", "step of the capture's clock", Amount::kJump},       // kClockStep
    {"fec_parity", "FEC is not the parity of its packets"},             // kFecParity
    {"fec_unrepaired", "stay lost behind FEC", Amount::kPackets},       // kFecUnrepaired
    {"twin_loss", "lost on both paths", Amount::kPackets},
    {"twin_different", "packet differs between the paths"},
}};

const Words& WordsOf(EventKind kind) {
  return kWords[static_cast<std::size_t>(kind)];
}

}  // namespace

const char* EventName(EventKind kind) {
  return WordsOf(kind).name;
}

std::optional<EventFigure> FigureOf(const Event& event) {
  switch (WordsOf(event.kind).amount) {
    case Amount::kNone:
      return std::nullopt;
    case Amount::kCount:
      return EventFigure{"count", event.amount};
    case Amount::kPackets:
      return EventFigure{"packets", event.amount};
    case Amount::kMissing:
      return event.amount > 0 ? std::optional(EventFigure{"packets", event.amount}) : std::nullopt;
    case Amount::kTime:
      return event.amount > 0 ? std::optional(EventFigure{"elapsed_ns", event.amount})
                              : std::nullopt;
    case Amount::kJump:
      return EventFigure{"jump_ns", event.amount};
    case Amount::kRate:
      return EventFigure{"rate_bps", event.amount};
    case Amount::kTable:
      return EventFigure{"table_id", event.amount};
    case Amount::kChecksum:
      return EventFigure{"protocol", event.amount};
    case Amount::kLink:
      return EventFigure{"up", event.amount};
  }
  return std::nullopt;
}

std::string EventText(const Event& event) {
  const auto [name, text, amount] = WordsOf(event.kind);
  const auto time = [&] { return FormatDuration(std::chrono::nanoseconds(event.amount)); };
  switch (amount) {
    case Amount::kNone:
      break;
    case Amount::kCount:
      return fmt::format("{} {}", FormatCount(static_cast<std::uint64_t>(event.amount)), text);
    case Amount::kPackets:
      return fmt::format("{} {}", FormatCount(static_cast<std::uint64_t>(event.amount), "packet"),
                         text);
    case Amount::kMissing:
      return event.amount == 0 ? text
                               : fmt::format("{}, {} missing", text,
                                             FormatCount(static_cast<std::uint64_t>(event.amount)));
    case Amount::kTime:
      // 0 where the fault is not one of time, such as a scrambled table.
      return event.kind == EventKind::kSilence || event.kind == EventKind::kSilenceBegan
                 ? fmt::format("{} {}", time(), text)
             : event.amount > 0 ? fmt::format("{}, {}", text, time())
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
