// SPDX-License-Identifier: MIT
#include "host/measure/results/event_words.h"

#include <fmt/format.h>

#include <chrono>

#include "host/base/units.h"

namespace ipplay::measure {
namespace {

enum class Amount { kNone, kCount, kPackets, kTime, kJump, kRate, kTable, kChecksum, kLink };

struct Words {
  const char* text;
  Amount amount = Amount::kNone;
};

Words WordsOf(EventKind kind) {
  switch (kind) {
    case EventKind::kLoss:
      return {"lost", Amount::kPackets};
    case EventKind::kRepeat:
      return {"repeated", Amount::kPackets};
    case EventKind::kReordered:
      return {"places out of order", Amount::kCount};
    case EventKind::kRestart:
      return {"the sender started anew"};
    case EventKind::kSilence:
      return {"without a frame", Amount::kTime};
    case EventKind::kRate:
      return {"is not the rate that was asked for", Amount::kRate};
    case EventKind::kChecksum:
      return {"checksum wrong", Amount::kChecksum};
    case EventKind::kSyncLoss:
      return {"TS sync loss"};
    case EventKind::kSyncByte:
      return {"sync byte error"};
    case EventKind::kPat:
      return {"PAT error", Amount::kTime};
    case EventKind::kContinuity:
      return {"continuity error"};
    case EventKind::kPmt:
      return {"PMT error", Amount::kTime};
    case EventKind::kPid:
      return {"PID error", Amount::kTime};
    case EventKind::kTransport:
      return {"transport error"};
    case EventKind::kCrc:
      return {"CRC error", Amount::kTable};
    case EventKind::kPcrRepetition:
      return {"PCR repetition error", Amount::kTime};
    case EventKind::kPcrDiscontinuity:
      return {"PCR discontinuity", Amount::kJump};
    case EventKind::kPcrAccuracy:
      return {"PCR accuracy error", Amount::kTime};
    case EventKind::kPts:
      return {"PTS error", Amount::kTime};
    case EventKind::kCat:
      return {"CAT error"};
    case EventKind::kSiRepetition:
      return {"SI repetition error", Amount::kTime};
    case EventKind::kUnreferencedPid:
      return {"unreferenced PID"};
    case EventKind::kCaptureDrop:
      return {"frames dropped by the capture", Amount::kCount};
    case EventKind::kLink:
      return {"link", Amount::kLink};
  }
  return {"unknown"};
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
