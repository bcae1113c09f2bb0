// SPDX-License-Identifier: MIT
#include "host/play/orders.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "host/base/units.h"

namespace ipplay {
namespace {

struct ActionWords {
  ActionKind kind;
  std::uint32_t what;  // 0: not done to datagrams
  std::string_view name;
  std::string_view done;
};
constexpr std::array<ActionWords, 10> kWords{
    {{ActionKind::kLose, IPPLAYOUT_DID_LOSE, "lose", "lost"},
     {ActionKind::kDelay, IPPLAYOUT_DID_DELAY, "delay", "delayed"},
     {ActionKind::kDuplicate, IPPLAYOUT_DID_DUPLICATE, "duplicate", "sent twice:"},
     {ActionKind::kCorrupt, IPPLAYOUT_DID_CORRUPT, "corrupt", "corrupted"},
     {ActionKind::kBadIpChecksum, IPPLAYOUT_DID_IP_CHECKSUM, "bad-ip-checksum",
      "wrong IP checksum in"},
     {ActionKind::kBadUdpChecksum, IPPLAYOUT_DID_UDP_CHECKSUM, "bad-udp-checksum",
      "wrong UDP checksum in"},
     {ActionKind::kBreak, IPPLAYOUT_DID_LOSE, "break", "link broken, lost"},
     {ActionKind::kPause, 0, "pause", ""},
     {ActionKind::kResume, 0, "resume", ""},
     {ActionKind::kStop, 0, "stop", ""}}};

const ActionWords& WordsOf(ActionKind kind) {
  return *std::find_if(kWords.begin(), kWords.end(),
                       [kind](const ActionWords& row) { return row.kind == kind; });
}

}  // namespace

bool IsFault(ActionKind kind) {
  return WordsOf(kind).what != 0;
}

IpPlayoutOrder OrderOf(const Action& action, std::chrono::nanoseconds at, std::uint64_t number) {
  const bool has_amount = action.kind == ActionKind::kDelay || action.kind == ActionKind::kCorrupt;
  const bool has_length = action.kind == ActionKind::kBreak;
  return {number,
          WordsOf(action.kind).what,
          has_length ? 0 : action.count,
          has_amount ? action.amount : 0,
          0,
          at.count(),
          has_length ? action.length.count() : 0};
}

std::string DoneText(const IpPlayoutDone& done, ActionKind kind) {
  return fmt::format("{} {}, {} {}", WordsOf(kind).done, FormatCount(done.Count, "datagram"),
                     done.Count == 1 ? "number" : "from number", FormatCount(done.Datagram + 1));
}

std::string_view NameOf(ActionKind kind) {
  return WordsOf(kind).name;
}

std::optional<ActionKind> ParseFault(std::string_view name) {
  const auto row = std::ranges::find(kWords, name, &ActionWords::name);
  return row != kWords.end() && row->what != 0 ? std::optional(row->kind) : std::nullopt;
}

}  // namespace ipplay
