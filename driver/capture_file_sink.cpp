// SPDX-License-Identifier: MIT
#include "driver/capture_file_sink.h"

#include <cerrno>
#include <new>
#include <utility>

namespace ipplayout {

Opened<CaptureFileSink> CaptureFileSink::Open(const CaptureFileSettings& settings) {
  auto writer = PcapngWriter::Open(settings.path, settings.description);
  if (writer.value == nullptr) {
    return NotOpened<CaptureFileSink>(writer.step, writer.error);
  }
  std::unique_ptr<CaptureFileSink> sink(
      new (std::nothrow) CaptureFileSink(std::move(writer.value), settings.epoch));
  return sink == nullptr ? NotOpened<CaptureFileSink>("get memory", ENOMEM)
                         : Opened<CaptureFileSink>{std::move(sink)};
}

FrameSink::Result CaptureFileSink::Send(std::span<const OutgoingFrame> frames,
                                        const platform::DeadlineWaiter& waiter) {
  Result result;
  for (; result.sent < frames.size(); ++result.sent) {
    const OutgoingFrame& frame = frames[result.sent];
    result.error =
        writer_->Write({epoch_ + frame.due, frame.bytes, frame.bytes.size(), {}}, waiter);
    if (result.error != 0) {
      result.of_frame = result.error == EMSGSIZE;
      break;
    }
  }
  retries_.store(writer_->Waits(), std::memory_order_relaxed);
  return result;
}

}  // namespace ipplayout
