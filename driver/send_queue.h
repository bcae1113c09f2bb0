// SPDX-License-Identifier: MIT
// A batch of frames on its way to the capture driver.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

namespace ipplayout {

// What stands in front of every queued frame: its time relative to the first frame of the batch,
// the bytes held and the frame's length, as in a capture file's record header.
struct FrameHeader {
  std::uint32_t seconds = 0;
  std::uint32_t microseconds = 0;
  std::uint32_t captured_length = 0;
  std::uint32_t length = 0;
};
static_assert(sizeof(FrameHeader) == 16);

// A byte buffer of fixed capacity that holds frames back to back, each behind its FrameHeader.
// Belongs to one thread at a time.
class SendQueue {
 public:
  struct Frame {
    FrameHeader header;
    std::span<const std::uint8_t> bytes;
  };

  // Null when memory runs out.
  static std::unique_ptr<SendQueue> Allocate(std::size_t capacity);
  SendQueue(const SendQueue&) = delete;
  SendQueue& operator=(const SendQueue&) = delete;
  ~SendQueue();

  // False, storing nothing, when the header and the bytes do not fit the rest of the queue.
  bool Append(const FrameHeader& header, const std::uint8_t* bytes);
  void Clear() {
    used_ = 0;
    frames_ = 0;
  }

  std::size_t Capacity() const { return capacity_; }
  std::size_t Used() const { return used_; }
  // Whole frames in the first `bytes`, which end with one.
  std::size_t FramesWithin(std::size_t bytes) const;

  // The frame at `position`, which is 0 or came from NextPosition and is below Used().
  Frame At(std::size_t position) const {
    Frame frame;
    std::memcpy(&frame.header, data_ + position, sizeof frame.header);
    frame.bytes = {data_ + position + sizeof frame.header, frame.header.captured_length};
    return frame;
  }
  // Fetches what is at `position`, below Used(), into the cache ahead of a call of At.
  void Prefetch(std::size_t position) const { __builtin_prefetch(data_ + position); }
  static std::size_t NextPosition(std::size_t position, const Frame& frame) {
    return position + sizeof frame.header + frame.bytes.size();
  }

 private:
  SendQueue(std::uint8_t* data, std::size_t capacity) : data_(data), capacity_(capacity) {}

  std::uint8_t* data_;
  std::size_t capacity_;
  std::size_t used_ = 0;
  std::size_t frames_ = 0;
};

}  // namespace ipplayout
