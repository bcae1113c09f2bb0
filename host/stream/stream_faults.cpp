// SPDX-License-Identifier: MIT
#include "host/stream/stream_faults.h"

#include <bitstream/mpeg/psi.h>
#include <bitstream/mpeg/ts.h>

#include <algorithm>

#include "host/stream/pcr.h"

namespace ipplay {
namespace {

constexpr std::size_t kPacketBytes = 188;
constexpr std::uint16_t kNullPid = 0x1FFF;

struct Form {
  StreamFaultKind kind;
  std::string_view name;
  bool has_amount;
};
constexpr std::array<Form, 8> kForms{{{StreamFaultKind::kContinuity, "continuity", false},
                                      {StreamFaultKind::kSync, "sync", false},
                                      {StreamFaultKind::kTransportError, "transport-error", false},
                                      {StreamFaultKind::kDrop, "drop", false},
                                      {StreamFaultKind::kPsi, "psi", false},
                                      {StreamFaultKind::kPcrOffset, "pcr-offset", true},
                                      {StreamFaultKind::kPcrJump, "pcr-jump", true},
                                      {StreamFaultKind::kPcrJitter, "pcr-jitter", true}}};

const Form& FormOf(StreamFaultKind kind) {
  return *std::find_if(kForms.begin(), kForms.end(),
                       [kind](const Form& form) { return form.kind == kind; });
}

std::int64_t Ticks(std::chrono::nanoseconds time) {
  return time.count() * 27 / 1000;
}

void MovePcr(std::uint8_t* packet, std::int64_t ticks) {
  const auto pcr = static_cast<std::int64_t>(ReadPcr(packet).value_or(0));
  const auto modulus = static_cast<std::int64_t>(kPcrModulus);
  WritePcr(packet, static_cast<std::uint64_t>(((pcr + ticks) % modulus + modulus) % modulus));
}

// The first section that begins in the packet, where its head and a byte of its body lie in it.
std::optional<std::size_t> SectionIn(const std::uint8_t* packet) {
  constexpr std::size_t kHead = 8;
  if (!ts_get_unitstart(packet) || !ts_has_payload(packet)) {
    return std::nullopt;
  }
  const std::size_t payload =
      TS_HEADER_SIZE + (ts_has_adaptation(packet) ? std::size_t{1} + ts_get_adaptation(packet) : 0);
  if (payload >= kPacketBytes) {
    return std::nullopt;
  }
  const std::size_t section = payload + 1 + packet[payload];
  return section + kHead < kPacketBytes && packet[section] != 0xFF ? std::optional(section)
                                                                   : std::nullopt;
}

bool IsTable(std::uint16_t pid) {
  constexpr std::uint16_t kNit = 0x10;
  constexpr std::uint16_t kEit = 0x12;
  return pid == 0 || (pid >= kNit && pid <= kEit);
}

}  // namespace

std::string_view NameOf(StreamFaultKind kind) {
  return FormOf(kind).name;
}

std::optional<StreamFaultKind> StreamFaultNamed(std::string_view name) {
  const auto* form = std::find_if(kForms.begin(), kForms.end(),
                                  [name](const Form& row) { return row.name == name; });
  return form == kForms.end() ? std::nullopt : std::optional(form->kind);
}

bool HasAmount(StreamFaultKind kind) {
  return FormOf(kind).has_amount;
}

StreamFaults::StreamFaults(PacketFormat format, const std::vector<StreamFault>& faults,
                           std::uint64_t seed)
    : format_(format), random_(seed) {
  for (const StreamFault& fault : faults) {
    faults_.push_back(std::make_unique<Active>());
    faults_.back()->fault = fault;
  }
}

std::span<const std::uint8_t> StreamFaults::Run(std::span<const std::uint8_t> packets) {
  if (faults_.empty() || format_.IsRaw()) {
    return packets;
  }
  bytes_.assign(packets.begin(), packets.end());
  const std::size_t unit = format_.packet_bytes;
  for (std::size_t at = 0; at + unit <= bytes_.size(); at += unit) {
    std::uint8_t* const packet = bytes_.data() + at + format_.SyncOffset();
    LearnPmts(packet);
    // All are asked first: one may make the packet another one.
    std::vector<Active*> happen;
    for (const auto& active : faults_) {
      if (CanHave(*active, packet) && Happens(*active)) {
        happen.push_back(active.get());
      }
      if (active->shift != 0 && CanHave(*active, packet)) {
        MovePcr(packet, active->shift);
      }
    }
    for (Active* active : happen) {
      Make(*active, packet);
    }
    const std::uint16_t pid = ts_get_pid(packet);
    if (counter_shifts_[pid] != 0) {
      ts_set_cc(packet, (ts_get_cc(packet) + counter_shifts_[pid]) & 0xF);
    }
  }
  return bytes_;
}

bool StreamFaults::CanHave(const Active& active, const std::uint8_t* packet) const {
  const std::uint16_t pid = ts_get_pid(packet);
  if (active.fault.pid && *active.fault.pid != pid) {
    return false;
  }
  switch (active.fault.kind) {
    case StreamFaultKind::kContinuity:
      return pid != kNullPid && ts_has_payload(packet);
    case StreamFaultKind::kDrop:
      return pid != kNullPid;
    case StreamFaultKind::kPsi:
      return (IsTable(pid) || pmt_pids_.count(pid) > 0) && SectionIn(packet).has_value();
    case StreamFaultKind::kPcrOffset:
    case StreamFaultKind::kPcrJump:
    case StreamFaultKind::kPcrJitter:
      return ReadPcr(packet).has_value();
    default:
      return true;
  }
}

bool StreamFaults::Happens(Active& active) {
  const std::uint64_t index = active.seen++;
  if (active.fault.range > 0) {
    return index % active.fault.range < active.fault.count;
  }
  constexpr double kOne = 9007199254740992.0;  // 2^53
  return static_cast<double>(random_() >> 11) < active.fault.chance * kOne;
}

void StreamFaults::Make(Active& active, std::uint8_t* packet) {
  active.made.fetch_add(1, std::memory_order_relaxed);
  const std::int64_t ticks = Ticks(active.fault.amount);
  switch (active.fault.kind) {
    case StreamFaultKind::kContinuity: {
      constexpr unsigned kJump = 5;
      std::uint8_t& shift = counter_shifts_[ts_get_pid(packet)];
      shift = static_cast<std::uint8_t>((shift + kJump) & 0xF);
      break;
    }
    case StreamFaultKind::kSync:
      packet[0] = static_cast<std::uint8_t>(~kSyncByte);
      break;
    case StreamFaultKind::kTransportError:
      ts_set_transporterror(packet);
      break;
    case StreamFaultKind::kDrop:
      ts_pad(packet);
      break;
    case StreamFaultKind::kPsi:
      // The identifier behind the length, which receivers look at first once the CRC is right.
      if (const auto section = SectionIn(packet)) {
        packet[*section + 4] ^= 1;
      }
      break;
    case StreamFaultKind::kPcrOffset:
      MovePcr(packet, ticks);
      break;
    case StreamFaultKind::kPcrJump:
      active.shift += ticks;
      MovePcr(packet, ticks);
      break;
    case StreamFaultKind::kPcrJitter:
      MovePcr(packet, std::uniform_int_distribution<std::int64_t>(-ticks / 2, ticks / 2)(random_));
      break;
  }
}

// Of a PAT in one packet, as all but the largest are.
void StreamFaults::LearnPmts(const std::uint8_t* packet) {
  constexpr std::size_t kHead = 8;
  constexpr std::size_t kCrc = 4;
  const auto section = ts_get_pid(packet) == 0 ? SectionIn(packet) : std::nullopt;
  if (!section) {
    return;
  }
  const std::uint8_t* const table = packet + *section;
  const std::size_t end =
      std::min<std::size_t>(std::size_t{3} + psi_get_length(table), kPacketBytes - *section);
  for (std::size_t at = kHead; at + kCrc + kCrc <= end; at += 4) {
    const bool is_programme = table[at] != 0 || table[at + 1] != 0;
    if (is_programme) {
      pmt_pids_.insert(static_cast<std::uint16_t>((table[at + 2] & 0x1F) << 8 | table[at + 3]));
    }
  }
}

std::vector<std::uint64_t> StreamFaults::Counts() const {
  std::vector<std::uint64_t> counts;
  for (const auto& active : faults_) {
    counts.push_back(active->made.load(std::memory_order_relaxed));
  }
  return counts;
}

}  // namespace ipplay
