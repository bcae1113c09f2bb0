// SPDX-License-Identifier: MIT
#include "control/playout.h"

#include <chrono>
#include <exception>
#include <utility>

#include "control/datagram_layout.h"
#include "control/parametric_settings.h"
#include "control/parts.h"
#include "platform/clock.h"
#include "platform/native_thread.h"
#include "platform/random.h"

namespace ipplayout {
namespace {

using platform::OwnedHostEvent;

constexpr std::uint32_t kReadTimeoutMs = 1;

// After a stop frames that are due within this time still leave when they are due, later ones at
// its end.
constexpr std::chrono::milliseconds kStopGrace{250};
// After a stop an adapter gets this long to take what has been handed over. The rest is given up.
constexpr std::chrono::milliseconds kStopPatience{800};

constexpr Seconds kFrameWork{2.5e-6};  // that sending one frame takes at most

// Between two frames, or two bursts, there is time to sleep, and sending takes up less than half of
// it all: the workers may run in real time without being throttled by the kernel. At higher rates
// the transmitter may not, and so the pump does not either, which would go before it at any level.
bool LeavesRest(const PcapRtInterface& capture, const CZebParametricManager& parametric) {
  // A wait is shorter than the time from frame to frame, by the work on a frame and the hand-over.
  constexpr Seconds kShortestRest =
      platform::DeadlineWaiter::kAlwaysSlept + std::chrono::microseconds(20);
  const std::uint32_t frames = parametric.IsBurstMode() != 0 ? capture.GetPacketsPerQueue() : 1;
  const Seconds packet_time = capture.GetPacketTime();
  return frames * packet_time >= kShortestRest && packet_time >= 2 * kFrameWork;
}

// With longer gaps a late wake-up does not matter, so let the processors sleep.
bool WantsShortWakeUps(const PcapRtInterface& capture) {
  constexpr Seconds kLongestGap{0.1};
  return capture.GetPacketTime() <= kLongestGap;
}

}  // namespace

Playout::~Playout() {
  Stop();
}

void Playout::Initialise() {
  const platform::MutexLock lock(control_mutex_);
  ResetForInit();
  parts_.devices.Clear();
  try {
    parts_.devices.Enumerate();
    parts_.devices.CreateArray();
    const platform::MutexLock event_lock(stop_event_mutex_);
    if (stop_event_ == nullptr) {
      if (auto event = OwnedHostEvent::Create()) {
        stop_event_ = std::make_shared<OwnedHostEvent>(std::move(*event));
      }
    }
  } catch (const std::exception&) {
    parts_.devices.Clear();  // no memory: no adapter rather than some of them
  }
}

void Playout::CleanUp() {
  const platform::MutexLock lock(control_mutex_);
  parts_.devices.Clear();
  const platform::MutexLock event_lock(stop_event_mutex_);
  stop_event_.reset();
}

int Playout::Start() {
  const platform::MutexLock lock(control_mutex_);
  if (!parts_.pump.IsComplete()) {
    return IPPLAYOUT_FAILED;
  }
  if (was_started_) {
    EndPlayout();
  } else {
    Release();
  }
  const PlayoutSettings& settings = Settings();
  if (!IsPlayable(settings) || !LoadManagers() || !OpenInterface()) {
    return IPPLAYOUT_FAILED;
  }
  platform::ProcessRandom().Seed(platform::MonotonicMilliseconds());
  pipeline_.chain.Build(settings, &parts_.errors, &parts_.replication,
                        pipeline_.capture_interface.get());
  const bool ready = LayOut() && ConfigureInterface() && StartThreads();
  return ready ? kStarted : IPPLAYOUT_FAILED;
}

bool Playout::LoadManagers() {
  const PlayoutSettings& settings = Settings();
  parts_.errors.Configure(settings.error_insertion);
  parts_.replication.StartDatagram();
  parts_.replication.SetIncrements(settings.params.ProtocolHeadersIncrements,
                                   settings.params.ReplicationCount);
  parts_.replication.SetHeaderSettings(settings.params.ProtocolHeadersSettings);
  LoadParametricSettings(parts_.parametric, settings.parametric);
  parts_.parametric.SetThreadPriority(
      static_cast<std::int32_t>(settings.other.PlayerThreadPriority));
  return true;
}

bool Playout::OpenInterface() {
  DeviceIdentifier* device = parts_.devices.At(static_cast<int>(Settings().params.DeviceIndex));
  if (device == nullptr) {
    return false;
  }
  pipeline_.capture_interface = device->CreateInterface(&kReadTimeoutMs);
  if (pipeline_.capture_interface == nullptr) {
    return false;
  }
  pipeline_.capture_interface->SetErrorInsertionManager(&parts_.errors);
  pipeline_.capture_interface->SetParametricManager(&parts_.parametric);
  // An adapter that cannot be opened is noticed when it is to be made ready.
  pipeline_.capture_interface->Open();
  return true;
}

bool Playout::LayOut() {
  const PlayoutSettings& settings = Settings();
  const auto layout = LayOutDatagram(settings, pipeline_.chain.Top()->GetHeaderLength());
  if (!layout) {
    return false;
  }
  parts_.data_buffer.SetPacketSize(layout->packet_size);
  parts_.pump.SetRawPayload(layout->packet_size == 0);
  parts_.pump.SetDatagramSize(layout->datagram_size);
  parts_.pump.SetTsPacketSize(settings.TSPacketSize);
  parts_.parametric.ComputeBurstCount(layout->datagram_size, StreamBitRate(settings));
  pipeline_.capture_interface->SetFrameSize(layout->datagram_size);
  return true;
}

bool Playout::ConfigureInterface() {
  const PlayoutSettings& settings = Settings();
  PcapRtInterface& capture = *pipeline_.capture_interface;
  capture.SetQueuedMode(1);
  capture.SetPacketsPerQueue(PacketsPerQueue(settings, parts_.parametric.GetBurstCount()));
  capture.SetBitRate(AggregateBitRate(settings));
  return capture.FilterInclude() && capture.HasQueues();
}

bool Playout::StartThreads() {
  CIPDataBuffer& buffer = parts_.data_buffer;
  if (!buffer.SetStartThreshold(
          StartThreshold(Settings().PlayFileSizeForIP, buffer.GetCapacity()))) {
    return false;
  }
  ZEBIPDataPump& pump = parts_.pump;
  pump.SetCaptureInterface(pipeline_.capture_interface.get());
  pump.SetTopLayer(pipeline_.chain.Top());
  PacketTransmitterThread& transmitter = parts_.transmitter;
  transmitter.SetInterface(pipeline_.capture_interface.get());
  const PcapRtInterface& capture = *pipeline_.capture_interface;
  const bool real_time = LeavesRest(capture, parts_.parametric);
  transmitter.UseRealTime(real_time);
  pump.UseRealTime(real_time);
  if (platform::IsNice()) {
    pipeline_.capture_interface->Waiter().SpinLittle();
  }
  if (WantsShortWakeUps(capture)) {
    short_wake_ups_.emplace();
  }
  was_started_ = true;
  if (transmitter.Start() && pump.Start()) {
    return true;
  }
  // The system refused a thread: the other one has nothing to do.
  transmitter.Stop();
  transmitter.WaitUntilFinished();
  return false;
}

void Playout::Stop() {
  const platform::MutexLock lock(control_mutex_);
  EndPlayout();
}

// The pump ends first: its last flush waits for the transmitter to release the send queue.
void Playout::EndPlayout() {
  parts_.data_buffer.Terminate();
  parts_.pump.Stop();
  if (pipeline_.capture_interface != nullptr) {
    platform::DeadlineWaiter& waiter = pipeline_.capture_interface->Waiter();
    const std::chrono::nanoseconds now = waiter.Now();
    waiter.GiveUpAt(now + kStopPatience);
    waiter.LimitWaits(now + kStopGrace);
  }
  parts_.pump.WaitUntilComplete();
  parts_.transmitter.Stop();
  parts_.transmitter.WaitUntilFinished();
  parts_.pump.Join();
  parts_.transmitter.Join();
  parts_.data_buffer.Reset();
  if (pipeline_.capture_interface != nullptr) {
    frames_not_sent_ = pipeline_.capture_interface->FramesNotSent();
  }
  Release();
  // A pause that was asked for while the playout was ending is over too.
  parts_.pump.Pause(false);
  parts_.errors.Reset();
  was_started_ = false;
}

void Playout::Release() {
  parts_.transmitter.SetInterface(nullptr);
  parts_.pump.SetCaptureInterface(nullptr);
  parts_.pump.SetTopLayer(nullptr);
  if (pipeline_.capture_interface != nullptr) {
    pipeline_.capture_interface->Close();
  }
  pipeline_ = Pipeline();
  short_wake_ups_.reset();
}

std::uint64_t Playout::FramesNotSent() {
  const platform::MutexLock lock(control_mutex_);
  return pipeline_.capture_interface == nullptr ? frames_not_sent_
                                                : pipeline_.capture_interface->FramesNotSent();
}

int Playout::Write(const std::uint8_t* data, std::uint32_t length) {
  if (parts_.pump.GetErrorCode() == IPPLAYOUT_FAILED) {
    return IPPLAYOUT_FAILED;
  }
  return parts_.data_buffer.Write(data, length) ? 0 : IPPLAYOUT_FAILED;
}

void Playout::WriteTerminate() {
  parts_.data_buffer.Terminate();
  const std::optional<OwnedHostEvent> completed = OwnedHostEvent::Create();
  if (!completed) {
    // Out of descriptors: the end of the playout still ends the wait, the stop event does not.
    parts_.pump.WaitUntilComplete();
    return;
  }
  std::shared_ptr<OwnedHostEvent> stop;
  {
    const platform::MutexLock lock(stop_event_mutex_);
    stop = stop_event_;
  }
  parts_.pump.AddCompletionEvent(completed->Handle());
  if (!parts_.pump.IsComplete()) {
    platform::WaitForEither(completed->Handle(),
                            stop == nullptr ? platform::kNullEvent : stop->Handle());
  }
  // Off the list before it is closed: the host may get the same descriptor number next.
  parts_.pump.WithdrawCompletionEvent(completed->Handle());
}

platform::EventHandle Playout::StopEvent() {
  const platform::MutexLock lock(stop_event_mutex_);
  return stop_event_ == nullptr ? platform::kNullEvent : stop_event_->Handle();
}

}  // namespace ipplayout
