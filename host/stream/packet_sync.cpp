// SPDX-License-Identifier: MIT
#include "host/stream/packet_sync.h"

#include <cstring>

namespace ipplay {
namespace {

// Sync bytes in a row that are taken for packets, not for chance.
constexpr std::size_t kTrustedRun = 5;

// Where the next one stands, or the end of the bytes.
std::size_t NextSyncByte(std::span<const std::uint8_t> bytes, std::size_t from) {
  if (from >= bytes.size()) {
    return from;
  }
  const void* const found = std::memchr(bytes.data() + from, kSyncByte, bytes.size() - from);
  return found == nullptr
             ? bytes.size()
             : static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - bytes.data());
}

}  // namespace

PacketSync::Run PacketSync::Find(std::span<const std::uint8_t> bytes, bool at_end) {
  const std::size_t length = format_.packet_bytes;
  Run run;
  if (!in_sync_) {
    const Search search = SearchFrom(bytes, 0, bytes.size(), at_end);
    in_sync_ = search.found;
    if (!in_sync_) {
      return {search.position, 0};
    }
    run.skipped = search.position;
  }
  std::size_t at = run.skipped;
  const std::size_t ahead = eager_ || at_end ? 0 : length + format_.SyncOffset() + 1;
  for (; at + length + ahead <= bytes.size(); at += length) {
    const bool first = at == run.skipped;
    if (!HasSync(bytes, at)) {
      in_sync_ = !first;
      // The byte itself cannot start a packet.
      return first ? Run{run.skipped + 1, 0} : Run{run.skipped, at - run.skipped};
    }
    if (IsCutShort(bytes, at)) {
      const Search search = SearchFrom(bytes, at + 1, at + length, at_end);
      if (search.position < at + length) {  // found, or more bytes are needed
        run.bytes = at - run.skipped;
        return first && search.found ? Run{search.position, 0} : run;
      }
    }
  }
  run.bytes = at - run.skipped;
  return run;
}

// The place of the next packet is no packet, nor is the one behind it: a damaged sync byte alone
// says nothing about the packet in front of it.
bool PacketSync::IsCutShort(std::span<const std::uint8_t> bytes, std::size_t packet) const {
  const std::size_t next = packet + format_.packet_bytes;
  const std::size_t second = next + format_.packet_bytes;
  const std::size_t sync = format_.SyncOffset();
  return next + sync < bytes.size() && !HasSync(bytes, next) &&
         (second + sync >= bytes.size() || !HasSync(bytes, second));
}

PacketSync::Search PacketSync::SearchFrom(std::span<const std::uint8_t> bytes, std::size_t from,
                                          std::size_t until, bool at_end) const {
  const std::size_t length = format_.packet_bytes;
  const std::size_t sync = format_.SyncOffset();
  for (std::size_t start = from; start < until; ++start) {
    start = NextSyncByte(bytes, start + sync) - sync;
    if (start >= until) {
      break;
    }
    std::size_t run = 0;
    std::size_t packet = start;
    while (run < kTrustedRun && packet + sync < bytes.size() && HasSync(bytes, packet)) {
      ++run;
      packet += length;
    }
    if (run == kTrustedRun) {
      return {start, true};
    }
    if (packet + sync < bytes.size()) {
      continue;  // a sync byte is missing
    }
    if (!at_end) {
      return {start, false};
    }
    const std::size_t whole = (bytes.size() - start) / length;
    if (whole >= 2 || start + length == bytes.size()) {
      return {start, true};
    }
  }
  return {until, false};
}

}  // namespace ipplay
