// SPDX-License-Identifier: MIT
#include "tests/support/fake_driver.h"

#include <new>

#include "driver/send_queue.h"

namespace ipplayout {

class FakeHandle final : public CaptureHandle {
 public:
  explicit FakeHandle(FakeDriver& driver) : driver_(driver) {
    const std::lock_guard lock(driver_.mutex_);
    ++driver_.open_handles_;
  }
  ~FakeHandle() override {
    const std::lock_guard lock(driver_.mutex_);
    --driver_.open_handles_;
  }

  int DataLink() const override { return driver_.data_link; }

  FilterResult SetFilter(const char* /*text*/, std::uint32_t /*netmask*/) override {
    return driver_.filter_result;
  }

  bool SendFrame(std::span<const std::uint8_t> frame) override {
    return driver_.Take({{frame.begin(), frame.end()}, {}});
  }

  // Timed as the real driver times it, on the waiter's clock.
  std::size_t TransmitQueue(const SendQueue& queue, bool synchronised,
                            platform::DeadlineWaiter& waiter) override {
    driver_.NoteStamps(queue);
    Recorder recorder(driver_);
    return TransmitTimed(queue, synchronised, waiter, recorder);
  }

  std::optional<CapturedFrame> NextFrame() override {
    const auto frame = driver_.Read();
    if (!frame || frame->bytes.empty()) {
      return std::nullopt;
    }
    last_read_ = frame->bytes;
    return CapturedFrame{frame->seconds, frame->microseconds, last_read_};
  }

 private:
  class Recorder final : public BurstSender {
   public:
    explicit Recorder(FakeDriver& driver) : driver_(driver) {}

    std::size_t SendBurst(std::span<const FrameBytes> frames,
                          const platform::DeadlineWaiter& waiter) override {
      const auto now = waiter.Now();
      std::size_t sent = 0;
      for (; sent < frames.size() && !waiter.ShouldGiveUp(); ++sent) {
        if (!driver_.Take({{frames[sent].begin(), frames[sent].end()}, now})) {
          break;
        }
      }
      return sent;
    }

   private:
    FakeDriver& driver_;
  };

  FakeDriver& driver_;
  std::vector<std::uint8_t> last_read_;
};

std::unique_ptr<CaptureHandle> FakeDriver::Open(const std::string& name,
                                                const OpenOptions& options) {
  {
    const std::lock_guard lock(mutex_);
    if (keep_sent) {
      opened_.push_back({name, options});
    }
  }
  return refuse_open ? nullptr : std::make_unique<FakeHandle>(*this);
}

CaptureDriver::MacResult FakeDriver::QueryMac(const std::string& adapter, MacAddress& mac,
                                              unsigned long& error) {
  if (adapter == no_memory_for) {
    throw std::bad_alloc();
  }
  const std::lock_guard lock(mutex_);
  const auto known = macs.find(adapter);
  const auto scripted = mac_results.find(adapter);
  MacResult result = known == macs.end() ? MacResult::kNotOpened : MacResult::kDone;
  if (scripted != mac_results.end()) {
    result = scripted->second;
  }
  if (result == MacResult::kNotOpened) {
    error = system_error;
  } else if (result == MacResult::kDone && known != macs.end()) {
    mac = known->second;
  }
  return result;
}

bool FakeDriver::Take(SentFrame frame) {
  {
    const std::lock_guard lock(mutex_);
    if (accept_ == 0) {
      return false;
    }
    if (accept_ != kUnlimited) {
      --accept_;
    }
  }
  if (on_sent) {
    on_sent(frame);
  }
  const std::lock_guard lock(mutex_);
  ++sent_frames_;
  if (keep_sent) {
    sent_.push_back(std::move(frame));
  }
  return true;
}

void FakeDriver::NoteStamps(const SendQueue& queue) {
  if (!keep_sent) {
    return;
  }
  std::vector<int> stamps;
  for (std::size_t position = 0; position < queue.Used();) {
    const SendQueue::Frame frame = queue.At(position);
    stamps.push_back(static_cast<int>(frame.header.seconds * 1000000 + frame.header.microseconds));
    position = SendQueue::NextPosition(position, frame);
  }
  const std::lock_guard lock(mutex_);
  stamps_.push_back(std::move(stamps));
}

std::optional<FakeDriver::ReceivedFrame> FakeDriver::Read() {
  const std::lock_guard lock(mutex_);
  ++reads_;
  if (received_.empty()) {
    return std::nullopt;
  }
  ReceivedFrame frame = std::move(received_.front());
  received_.pop_front();
  return frame;
}

}  // namespace ipplayout
