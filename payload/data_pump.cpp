// SPDX-License-Identifier: MIT
#include "payload/data_pump.h"

#include <algorithm>
#include <array>
#include <utility>

#include "payload/data_buffer.h"
#include "payload/error_insertion_manager.h"
#include "platform/clock.h"
#include "platform/native_thread.h"
#include "platform/random.h"
#include "protocol/pdu.h"
#include "protocol/replication_manager.h"
#include "protocol/sender.h"
#include "transmit/parametric_manager.h"
#include "transmit/pcap_rt_interface.h"

namespace ipplayout {
namespace {

struct PriorityRow {
  std::int32_t setting;
  OsaThreadPriority priority;
};

// Any other setting leaves the thread as it is.
constexpr std::array<PriorityRow, 6> kPriorities{{
    {IPPLAYOUT_PRIORITY_IDLE, OsaThreadPriority::Idle()},
    {IPPLAYOUT_PRIORITY_BELOW_NORMAL, OsaThreadPriority::BelowNormal()},
    {IPPLAYOUT_PRIORITY_NORMAL, OsaThreadPriority::Normal()},
    {IPPLAYOUT_PRIORITY_ABOVE_NORMAL, OsaThreadPriority::AboveNormal()},
    {IPPLAYOUT_PRIORITY_HIGHEST, OsaThreadPriority::Highest()},
    {IPPLAYOUT_PRIORITY_TIME_CRITICAL, OsaThreadPriority::TimeCritical()},
}};

// A stop waits for the copies of the datagram in hand, but not for as many as there may be.
constexpr std::int64_t kMostCopiesAfterStop = 10'000;

}  // namespace

ZEBIPDataPump::ZEBIPDataPump() : OsaThread("DataPumpThread", 0, OsaThreadPriority::AboveNormal()) {}

bool ZEBIPDataPump::Start() {
  Join();
  error_code_.store(0);
  ClearStatistics();
  source_->BeginRun();
  {
    const platform::MutexLock lock(completion_mutex_);
    complete_ = false;
    ++run_number_;
  }
  const bool started = OsaThread::Start();
  if (!started) {
    EndRun();
  }
  return started;
}

void ZEBIPDataPump::Stop() {
  OsaThread::Stop();
  Pause(false);
}

void ZEBIPDataPump::Pause(bool on) {
  const platform::MutexLock lock(pause_mutex_);
  if (on) {
    paused_ = true;
    return;
  }
  paused_ = false;
  ++resume_count_;
  resumed_.NotifyAll();
}

bool ZEBIPDataPump::IsComplete() {
  const platform::MutexLock lock(completion_mutex_);
  return complete_;
}

void ZEBIPDataPump::WaitUntilComplete() {
  const platform::MutexLock lock(completion_mutex_);
  const std::uint64_t run = run_number_;
  while (!complete_ && run_number_ == run) {
    completed_.Wait(completion_mutex_);
  }
}

bool ZEBIPDataPump::RegisterCompletionEvent(platform::EventHandle event) {
  if (event == platform::kNullEvent || event == platform::kInvalidEvent) {
    return true;
  }
  const platform::MutexLock lock(completion_mutex_);
  const auto place =
      std::lower_bound(registered_events_.begin(), registered_events_.end(), event,
                       [](const Registered& registered, platform::EventHandle sought) {
                         return registered.event.IsBefore(sought);
                       });
  if (place != registered_events_.end() && place->event.IsSame(event)) {
    ++place->times;  // a host that registers before each start takes up one descriptor
    return true;
  }
  auto own = platform::OwnedHostEvent::Duplicate(event);
  if (own) {
    registered_events_.insert(place, {std::move(*own), 1});
  }
  return own.has_value();
}

void ZEBIPDataPump::AddCompletionEvent(platform::EventHandle event) {
  const platform::MutexLock lock(completion_mutex_);
  completion_events_.push_back(event);
}

void ZEBIPDataPump::WithdrawCompletionEvent(platform::EventHandle event) {
  const platform::MutexLock lock(completion_mutex_);
  std::erase(completion_events_, event);
}

void ZEBIPDataPump::Run() {
  ApplyThreadPriority();
  platform::GiveUpCapabilities();
  platform::UseFinestTimerSlack();  // for the last batch, which this thread sends itself
  try {
    SendDatagrams();
  } catch (...) {
    // Out of memory, for the frame or for a frame held back.
    error_code_.store(IPPLAYOUT_FAILED);
  }
  EndRun();
}

void ZEBIPDataPump::ApplyThreadPriority() {
  for (const PriorityRow& row : kPriorities) {
    if (row.setting == parameters_->GetThreadPriority()) {
      SetPriority(row.priority);
    }
  }
}

void ZEBIPDataPump::SendDatagrams() {
  header_room_ = top_layer_->GetHeaderLength();
  statistics_.Begin(
      {header_room_, datagram_size_, raw_payload_ ? 0 : source_->GetPacketSize(), ts_packet_size_});
  stopping_ = false;
  flushed_ = false;
  PDU frame(datagram_size_);
  platform::ProcessRandom().Seed(platform::MonotonicMilliseconds());
  // Counts on when the host clears the statistics: frames that are held back are due by it, and the
  // schedule of errors goes on.
  std::uint64_t index = 0;
  while (!stopping_) {
    stopping_ = StopRequested();
    replication_->StartDatagram();
    if (!stopping_) {
      WaitWhilePaused();
      stopping_ = StopRequested();
    }
    errors_->PrepareForPacket(index);
    if (!source_->ReadPayload(frame, header_room_, 0)) {
      break;
    }
    if (!SendAllCopies(frame)) {
      error_code_.store(IPPLAYOUT_FAILED);
      return;
    }
    statistics_.Count(frame, *errors_);
    ++index;
    if (frame.Length() != datagram_size_) {
      frame.SetLength(datagram_size_);
    }
    if (flushed_) {
      break;
    }
  }
  if (!flushed_) {
    Flush();
  }
}

void ZEBIPDataPump::WaitWhilePaused() {
  if (!paused_.load()) {
    return;
  }
  const platform::MutexLock lock(pause_mutex_);
  // Stop raises its request before it takes the mutex to end a pause, so one of the two is seen.
  if (paused_ && !StopRequested()) {
    const std::uint64_t resumes = resume_count_;
    while (resume_count_ == resumes) {
      resumed_.Wait(pause_mutex_);
    }
  }
}

bool ZEBIPDataPump::SendAllCopies(PDU& frame) {
  std::int64_t extra_copies =
      replication_->IsEnabled() != 0 ? replication_->GetReplicationCount() : 0;
  for (std::int64_t copy = 0; copy < extra_copies; ++copy) {
    if (StopRequested()) {
      extra_copies = std::min(extra_copies, copy + kMostCopiesAfterStop);
    }
    if (!top_layer_->Send(frame)) {
      return false;
    }
    replication_->NextCopy();
  }
  if (!top_layer_->Send(frame)) {
    return false;
  }
  // After the last copy of the last datagram, what is still queued leaves.
  if (stopping_ || source_->HasEnded()) {
    Flush();
  }
  return true;
}

void ZEBIPDataPump::Flush() {
  interface_->FlushLastQueue();
  flushed_ = true;
}

void ZEBIPDataPump::EndRun() {
  source_->EndRun();
  const platform::MutexLock lock(completion_mutex_);
  complete_ = true;
  interface_->SignalQueueReady();
  for (const Registered& registered : registered_events_) {
    for (std::uint64_t i = 0; i < registered.times; ++i) {
      platform::SignalHostEvent(registered.event.Handle());
    }
  }
  for (const platform::EventHandle event : completion_events_) {
    platform::SignalHostEvent(event);
  }
  completed_.NotifyAll();
}

}  // namespace ipplayout
