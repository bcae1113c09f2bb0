// SPDX-License-Identifier: MIT
// The life of a playout: from settings to a running pipeline and back.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "control/header_chain.h"
#include "platform/host_event.h"
#include "platform/mutex.h"
#include "platform/wake_latency.h"
#include "transmit/pcap_rt_interface.h"

namespace ipplayout {

struct Parts;

// The objects of one run.
struct Pipeline {
  std::unique_ptr<PcapRtInterface> capture_interface;
  HeaderChain chain;
};

// One playout at a time. Operations that start, stop, initialise or clean up wait for each other;
// none is held up by a host that blocks in Write or WriteTerminate.
class Playout {
 public:
  static constexpr int kStarted = 0;

  // `parts` outlive this object.
  explicit Playout(Parts& parts) : parts_(parts) {}
  Playout(const Playout&) = delete;
  Playout& operator=(const Playout&) = delete;
  ~Playout();

  void Initialise();
  void CleanUp();

  // kStarted, or IPPLAYOUT_FAILED; then what was built so far is left for a stop or the next start.
  int Start();
  void Stop();
  // Frames that the adapter did not take, of those built in the last run. While one is in progress
  // they include what is on its way.
  std::uint64_t FramesNotSent();

  int Write(const std::uint8_t* data, std::uint32_t length);
  void WriteTerminate();
  platform::EventHandle StopEvent();

 private:
  bool OpenInterface() IPPLAYOUT_REQUIRES(control_mutex_);
  bool ConfigureInterface() IPPLAYOUT_REQUIRES(control_mutex_);
  bool LoadManagers();
  bool LayOut() IPPLAYOUT_REQUIRES(control_mutex_);
  bool StartThreads() IPPLAYOUT_REQUIRES(control_mutex_);
  void EndPlayout() IPPLAYOUT_REQUIRES(control_mutex_);
  void Release() IPPLAYOUT_REQUIRES(control_mutex_);

  Parts& parts_;

  // Serialises the lifecycle. The worker threads never take it.
  platform::Mutex control_mutex_;
  Pipeline pipeline_ IPPLAYOUT_GUARDED_BY(control_mutex_);
  // During a run.
  std::optional<platform::ShortWakeUps> short_wake_ups_ IPPLAYOUT_GUARDED_BY(control_mutex_);
  // Of a run that was released.
  std::uint64_t frames_not_sent_ IPPLAYOUT_GUARDED_BY(control_mutex_) = 0;
  // The pipeline's threads have been started.
  bool was_started_ IPPLAYOUT_GUARDED_BY(control_mutex_) = false;

  platform::Mutex stop_event_mutex_;
  // Shared with the waits on it, so that cleaning up does not close a descriptor under a wait.
  std::shared_ptr<platform::OwnedHostEvent> stop_event_ IPPLAYOUT_GUARDED_BY(stop_event_mutex_);
};

}  // namespace ipplayout
