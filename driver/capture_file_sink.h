// SPDX-License-Identifier: MIT
// A capture file as the destination of a schedule whose clock is virtual.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "driver/frame_sink.h"
#include "driver/opened.h"
#include "driver/pcapng_writer.h"

namespace ipplayout {

struct CaptureFileSettings {
  std::string path;
  PcapngWriter::Description description;
  // Time 0 of the schedule, since 1970: files of one schedule are then the same.
  std::chrono::nanoseconds epoch{0};
};

// Each frame with the time at which it is due, in pcapng (driver/pcapng_writer.h), written as fast
// as the disk takes it. A frame that was sent may still be in a buffer: Finish has the last word. A
// file that is not finished, or could not be written, is removed.
class CaptureFileSink final : public FrameSink {
 public:
  static Opened<CaptureFileSink> Open(const CaptureFileSettings& settings);

  Result Send(std::span<const OutgoingFrame> frames,
              const platform::DeadlineWaiter& waiter) override;
  const char* Name() const override { return "capture file"; }
  std::uint64_t Retries() const override { return retries_.load(std::memory_order_relaxed); }
  bool IsVirtual() const override { return true; }
  int Finish() override { return writer_->Finish(); }

 private:
  CaptureFileSink(std::unique_ptr<PcapngWriter> writer, std::chrono::nanoseconds epoch)
      : writer_(std::move(writer)), epoch_(epoch) {}

  const std::unique_ptr<PcapngWriter> writer_;
  const std::chrono::nanoseconds epoch_;
  std::atomic<std::uint64_t> retries_{0};  // written by the sending thread
};

}  // namespace ipplayout
