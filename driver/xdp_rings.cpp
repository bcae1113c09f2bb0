// SPDX-License-Identifier: MIT
#include "driver/xdp_rings.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

namespace ipplayout {
namespace {

// Needed for the socket to be bound; nothing is ever received.
constexpr std::uint32_t kFillEntries = 1;
// A socket that has just been closed, by a playout that ended, holds on to its queue for a moment.
constexpr int kBindTries = 50;
constexpr timespec kBindPause{0, 200'000};

bool Set(int socket, int option, std::uint32_t value) {
  return ::setsockopt(socket, SOL_XDP, option, &value, sizeof value) == 0;
}

}  // namespace

std::unique_ptr<XdpRings> XdpRings::Open(unsigned interface_index, std::uint32_t chunk_bytes) {
  platform::Descriptor descriptor =
      platform::AboveStandard(platform::Descriptor(::socket(AF_XDP, SOCK_RAW | SOCK_CLOEXEC, 0)));
  if (!descriptor.IsOpen()) {
    return nullptr;
  }
  std::unique_ptr<XdpRings> rings(new XdpRings(std::move(descriptor), chunk_bytes));
  const bool ready = rings->Register() && rings->MapRings() && rings->Bind(interface_index);
  return ready ? std::move(rings) : nullptr;
}

XdpRings::XdpRings(platform::Descriptor socket, std::uint32_t chunk_bytes)
    : socket_(std::move(socket)),
      chunk_bytes_(chunk_bytes),
      chunks_(std::size_t{kChunks} * chunk_bytes) {
  while (free_count_ < kChunks) {
    free_[free_count_] = free_count_ * chunk_bytes;
    ++free_count_;
  }
}

XdpRings::~XdpRings() {
  for (const Ring& ring : {transmit_, completion_}) {
    if (ring.memory != nullptr) {
      ::munmap(ring.memory, ring.size);
    }
  }
}

bool XdpRings::Register() {
  if (chunks_.Data() == nullptr) {
    return false;
  }
  xdp_umem_reg memory{};
  memory.addr = reinterpret_cast<std::uintptr_t>(chunks_.Data());
  memory.len = chunks_.Size();
  memory.chunk_size = chunk_bytes_;
  const int descriptor = socket_.Get();
  return ::setsockopt(descriptor, SOL_XDP, XDP_UMEM_REG, &memory, sizeof memory) == 0 &&
         Set(descriptor, XDP_UMEM_FILL_RING, kFillEntries) &&
         Set(descriptor, XDP_UMEM_COMPLETION_RING, kChunks) &&
         Set(descriptor, XDP_TX_RING, kChunks);
}

bool XdpRings::MapRings() {
  xdp_mmap_offsets offsets{};
  socklen_t size = sizeof offsets;
  if (::getsockopt(socket_.Get(), SOL_XDP, XDP_MMAP_OFFSETS, &offsets, &size) != 0 ||
      size != sizeof offsets) {
    return false;
  }
  return Map(transmit_, offsets.tx, sizeof(xdp_desc), XDP_PGOFF_TX_RING) &&
         Map(completion_, offsets.cr, sizeof(std::uint64_t), XDP_UMEM_PGOFF_COMPLETION_RING);
}

bool XdpRings::Map(Ring& ring, const xdp_ring_offset& offsets, std::size_t entry_bytes,
                   std::int64_t page) {
  ring.size = offsets.desc + kChunks * entry_bytes;
  void* memory = ::mmap(nullptr, ring.size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE,
                        socket_.Get(), page);
  if (memory == MAP_FAILED) {
    return false;
  }
  ring.memory = memory;
  auto* base = static_cast<std::uint8_t*>(memory);
  ring.producer = reinterpret_cast<std::uint32_t*>(base + offsets.producer);
  ring.consumer = reinterpret_cast<std::uint32_t*>(base + offsets.consumer);
  ring.entries = base + offsets.desc;
  return true;
}

bool XdpRings::Bind(unsigned interface_index) {
  sockaddr_xdp address{};
  address.sxdp_family = AF_XDP;
  address.sxdp_flags = XDP_COPY;
  address.sxdp_ifindex = interface_index;
  for (int tries = 0; tries < kBindTries; ++tries) {
    if (::bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return true;
    }
    if (errno != EBUSY) {
      return false;
    }
    ::nanosleep(&kBindPause, nullptr);
  }
  return false;
}

std::size_t XdpRings::FreeChunks() {
  const std::uint32_t ready =
      std::atomic_ref(*completion_.producer).load(std::memory_order_acquire);
  for (; completed_ != ready; ++completed_) {
    const std::uint64_t chunk =
        static_cast<const std::uint64_t*>(completion_.entries)[completed_ % kChunks];
    if (chunk != NoChunk()) {
      free_[free_count_++] = chunk;
    }
  }
  std::atomic_ref(*completion_.consumer).store(completed_, std::memory_order_release);
  return free_count_;
}

void XdpRings::Append(std::span<const std::uint8_t> frame) {
  const std::uint64_t chunk = free_[--free_count_];
  std::memcpy(chunks_.Data() + chunk, frame.data(), frame.size());
  Slot(produced_) = {chunk, static_cast<std::uint32_t>(frame.size()), 0};
  ++produced_;
}

void XdpRings::Publish() {
  std::atomic_ref(*transmit_.producer).store(produced_, std::memory_order_release);
}

int XdpRings::Kick() const {
  return ::sendto(socket_.Get(), nullptr, 0, MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0) < 0 ? errno
                                                                                          : 0;
}

std::uint32_t XdpRings::Taken() const {
  return std::atomic_ref(*transmit_.consumer).load(std::memory_order_acquire);
}

// The kernel skips a descriptor that cannot be valid, and counts it. Some versions complete it,
// too.
std::optional<std::size_t> XdpRings::TakeBack(std::size_t count) {
  std::array<std::uint64_t, kChunks> chunks;
  for (std::size_t i = 0; i < count; ++i) {
    xdp_desc& slot = Slot(produced_ - static_cast<std::uint32_t>(count - i));
    chunks[i] = slot.addr;
    slot = {NoChunk(), 0, 0};
  }
  const std::uint64_t before = Refused();
  // Linux skips either all of them in one call or one in each, and one more call may have to show
  // that it has come to the end.
  for (std::size_t calls = 0; calls <= count + 1 && !AllTaken(); ++calls) {
    if (Kick() != 0) {
      return std::nullopt;
    }
  }
  const std::uint64_t taken_back = Refused() - before;
  if (!AllTaken() || taken_back > count) {
    return std::nullopt;
  }
  for (std::size_t i = count - taken_back; i < count; ++i) {
    free_[free_count_++] = chunks[i];
  }
  return taken_back;
}

std::uint64_t XdpRings::Refused() const {
  xdp_statistics statistics{};
  socklen_t size = sizeof statistics;
  ::getsockopt(socket_.Get(), SOL_XDP, XDP_STATISTICS, &statistics, &size);
  return statistics.tx_invalid_descs;
}

}  // namespace ipplayout
