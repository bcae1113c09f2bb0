// SPDX-License-Identifier: MIT
#include "driver/timed_batch.h"

#include <algorithm>
#include <array>
#include <chrono>

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

// Signed and 64 bits wide: no pair of time stamps overflows the difference.
nanoseconds Difference(const FrameHeader& frame, const FrameHeader& first) {
  return std::chrono::seconds(std::int64_t{frame.seconds} - first.seconds) +
         std::chrono::microseconds(std::int64_t{frame.microseconds} - first.microseconds);
}

// The pump has just written the headers on another processor: fetches the first ones side by side,
// not one after the other. Assumes that all frames have the first one's length; a wrong guess only
// wastes the fetch.
void PrefetchHeaders(const SendQueue& queue) {
  constexpr std::size_t kMost = 16;
  const std::size_t stride = SendQueue::NextPosition(0, queue.At(0));
  const std::size_t end = std::min(queue.Used(), kMost * stride);
  for (std::size_t position = stride; position < end; position += stride) {
    queue.Prefetch(position);
  }
}

struct Burst {
  std::array<FrameBytes, BurstSender::kMostFrames> frames;
  std::size_t count = 0;
};

// The frame at `position` and those behind it that are due `elapsed` after the first frame.
void CollectDueFrames(const SendQueue& queue, std::size_t position, const FrameHeader& first,
                      nanoseconds elapsed, Burst& burst) {
  burst.count = 0;
  while (position < queue.Used() && burst.count < burst.frames.size()) {
    const SendQueue::Frame frame = queue.At(position);
    if (burst.count > 0 && Difference(frame.header, first) > elapsed) {
      return;
    }
    burst.frames[burst.count++] = frame.bytes;
    position = SendQueue::NextPosition(position, frame);
  }
}

}  // namespace

std::size_t TransmitTimed(const SendQueue& queue, bool synchronised,
                          platform::DeadlineWaiter& waiter, BurstSender& sender) {
  if (queue.Used() == 0) {
    return 0;
  }
  PrefetchHeaders(queue);
  const FrameHeader first = queue.At(0).header;
  const nanoseconds start = synchronised ? waiter.Now() : nanoseconds::zero();
  nanoseconds elapsed = synchronised ? nanoseconds::zero() : nanoseconds::max();
  std::size_t position = 0;
  Burst burst;
  while (position < queue.Used() && !waiter.ShouldGiveUp()) {
    const nanoseconds due = Difference(queue.At(position).header, first);
    if (due > elapsed) {
      elapsed = waiter.Now() - start;
    }
    if (due > elapsed) {
      waiter.WaitUntil(start + due);
      elapsed = due;
    }
    CollectDueFrames(queue, position, first, elapsed, burst);
    const std::size_t sent = sender.SendBurst({burst.frames.data(), burst.count}, waiter);
    for (std::size_t i = 0; i < sent; ++i) {
      position += sizeof(FrameHeader) + burst.frames[i].size();
    }
    if (sent < burst.count) {
      break;
    }
  }
  return position;
}

}  // namespace ipplayout
