// SPDX-License-Identifier: MIT
#include "driver/send_queue.h"

#include <cstdlib>
#include <new>

namespace ipplayout {

std::unique_ptr<SendQueue> SendQueue::Allocate(std::size_t capacity) {
  // Left uninitialised: a large queue costs memory only as far as it is filled.
  auto* data = static_cast<std::uint8_t*>(std::malloc(capacity == 0 ? 1 : capacity));
  if (data == nullptr) {
    return nullptr;
  }
  std::unique_ptr<SendQueue> queue(new (std::nothrow) SendQueue(data, capacity));
  if (queue == nullptr) {
    std::free(data);
  }
  return queue;
}

SendQueue::~SendQueue() {
  std::free(data_);
}

bool SendQueue::Append(const FrameHeader& header, const std::uint8_t* bytes) {
  if (sizeof header + header.captured_length > capacity_ - used_) {
    return false;
  }
  std::memcpy(data_ + used_, &header, sizeof header);
  std::memcpy(data_ + used_ + sizeof header, bytes, header.captured_length);
  used_ += sizeof header + header.captured_length;
  ++frames_;
  return true;
}

std::size_t SendQueue::FramesWithin(std::size_t bytes) const {
  if (bytes == used_) {
    return frames_;
  }
  std::size_t frames = 0;
  for (std::size_t position = 0; position < bytes; ++frames) {
    position = NextPosition(position, At(position));
  }
  return frames;
}

}  // namespace ipplayout
