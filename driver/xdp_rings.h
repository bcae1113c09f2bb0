// SPDX-License-Identifier: MIT
// The memory that an AF_XDP socket shares with the kernel.
#pragma once

#include <linux/if_xdp.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "platform/descriptor.h"
#include "platform/pages.h"

namespace ipplayout {

// A socket for sending only, with its chunks of frame memory, its transmit ring and its completion
// ring (https://docs.kernel.org/networking/af_xdp.html). A chunk belongs to the kernel from Publish
// until the frame in it is completed. Belongs to one thread at a time.
class XdpRings {
 public:
  static constexpr std::uint32_t kChunks = 256;

  // Binds to the first queue of the adapter, in copy mode. `chunk_bytes` is 2048 or 4096. Null when
  // the kernel refuses.
  static std::unique_ptr<XdpRings> Open(unsigned interface_index, std::uint32_t chunk_bytes);
  XdpRings(const XdpRings&) = delete;
  XdpRings& operator=(const XdpRings&) = delete;
  ~XdpRings();

  std::size_t ChunkBytes() const { return chunk_bytes_; }

  // Takes in the completed chunks. Returns how many are free.
  std::size_t FreeChunks();
  // Copies the frame into a free chunk behind what is published. It fits a chunk, and there is one.
  void Append(std::span<const std::uint8_t> frame);
  // Passes what has been appended to the kernel, which acts on it at the next Kick.
  void Publish();
  // Frames appended since the start.
  std::uint32_t Published() const { return produced_; }
  // 0, or the error number of the call that makes the kernel send.
  int Kick() const;
  // The kernel has gone through all that was published.
  bool AllTaken() const { return Taken() == produced_; }
  // How many of the published frames the kernel has processed, as far as is known: before
  // Linux 6.17 it says so only when it comes to their end.
  std::uint32_t Taken() const;

  // Takes those of the last `count` published frames back that the kernel has not gone through.
  // Returns how many they are; nothing when the kernel does not say, after which the rings are of
  // no more use.
  std::optional<std::size_t> TakeBack(std::size_t count);

 private:
  struct Ring {
    void* memory = nullptr;
    std::size_t size = 0;
    std::uint32_t* producer = nullptr;
    std::uint32_t* consumer = nullptr;
    void* entries = nullptr;
  };

  XdpRings(platform::Descriptor socket, std::uint32_t chunk_bytes);
  bool Register();
  bool MapRings();
  bool Map(Ring& ring, const xdp_ring_offset& offsets, std::size_t entry_bytes, std::int64_t page);
  bool Bind(unsigned interface_index);
  std::uint64_t Refused() const;
  // Stands in a descriptor for a frame that was taken back.
  std::uint64_t NoChunk() const { return chunks_.Size(); }
  xdp_desc& Slot(std::uint32_t index) const {
    return static_cast<xdp_desc*>(transmit_.entries)[index % kChunks];
  }

  const platform::Descriptor socket_;
  const std::uint32_t chunk_bytes_;
  const platform::Pages chunks_;
  Ring transmit_;
  Ring completion_;
  std::uint32_t produced_ = 0;   // appended to the transmit ring
  std::uint32_t completed_ = 0;  // read from the completion ring
  // The last one returned is used first, since it is still in the cache.
  std::array<std::uint64_t, kChunks> free_{};
  std::size_t free_count_ = 0;
};

}  // namespace ipplayout
