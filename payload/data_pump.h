// SPDX-License-Identifier: MIT
// The worker thread that turns the stream into datagrams and hands them down the protocol chain.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "ipplayout/ipplayout.h"
#include "payload/run_statistics.h"
#include "platform/host_event.h"
#include "platform/mutex.h"
#include "transmit/osa_thread.h"

namespace ipplayout {

class CErrorInsertionManager;
class CIPDataBuffer;
class CParametricManagerBase;
class CReplicationMgrBase;
class PcapRtInterface;
class PDU;
class Sender;

// One instance lives as long as the library. The setters are called while no run is in progress,
// the rest by host threads at any time. Pointers are not owned and outlive the run.
class ZEBIPDataPump final : public OsaThread {
 public:
  ZEBIPDataPump();

  void SetPayloadSource(CIPDataBuffer* source) { source_ = source; }
  void SetTopLayer(Sender* top) { top_layer_ = top; }
  void SetCaptureInterface(PcapRtInterface* interface) { interface_ = interface; }
  void SetErrorManager(CErrorInsertionManager* manager) { errors_ = manager; }
  void SetReplicationManager(CReplicationMgrBase* manager) { replication_ = manager; }
  void SetParametricManager(const CParametricManagerBase* manager) { parameters_ = manager; }
  // Bytes of a whole frame, headers included.
  void SetDatagramSize(std::uint32_t bytes) { datagram_size_ = bytes; }
  // The stream has no packets: payloads are cut at any byte.
  void SetRawPayload(bool raw) { raw_payload_ = raw; }
  // Bytes that a transport stream packet counts for in the statistics.
  void SetTsPacketSize(std::uint32_t bytes) { ts_packet_size_ = bytes; }

  // From its return on the run is in progress and its statistics are the ones reported, however
  // late the thread begins.
  bool Start();
  // Noticed at the next datagram, which is still sent. Ends a pause.
  void Stop() override;

  // Takes effect between datagrams.
  void Pause(bool on);
  // No run is in progress.
  bool IsComplete();
  // Waits for the end of the run in progress, if there is one.
  void WaitUntilComplete();

  // Signals the host's `event` at the end of every run from now on, as often as it was registered,
  // whatever the host does with its descriptor. False when there is no descriptor left for it.
  bool RegisterCompletionEvent(platform::EventHandle event);
  // Signals an event of the library's own at the end of every run, until it is withdrawn.
  void AddCompletionEvent(platform::EventHandle event);
  void WithdrawCompletionEvent(platform::EventHandle event);

  bool GetStatistics(PlayoutStatistics* out) {
    *out = statistics_.Read();
    return true;
  }
  void ClearStatistics() { statistics_.Clear(); }
  // 0, or IPPLAYOUT_FAILED after a layer failed to take a frame, until the next run.
  std::int32_t GetErrorCode() const { return error_code_.load(); }

 private:
  void Run() override;
  void ApplyThreadPriority();
  void SendDatagrams();
  bool SendAllCopies(PDU& frame);
  void WaitWhilePaused();
  void Flush();
  void EndRun();

  CIPDataBuffer* source_ = nullptr;
  Sender* top_layer_ = nullptr;
  PcapRtInterface* interface_ = nullptr;
  CErrorInsertionManager* errors_ = nullptr;
  CReplicationMgrBase* replication_ = nullptr;
  const CParametricManagerBase* parameters_ = nullptr;
  std::uint32_t datagram_size_ = 0;
  bool raw_payload_ = false;
  std::uint32_t ts_packet_size_ = 0;

  // Pump thread only, for one run.
  std::uint32_t header_room_ = 0;
  bool stopping_ = false;
  bool flushed_ = false;

  std::atomic<std::int32_t> error_code_{0};

  RunStatistics statistics_;

  struct Registered {
    platform::OwnedHostEvent event;
    std::uint64_t times;
  };
  platform::Mutex completion_mutex_;  // events are signalled under it
  platform::ConditionVariable completed_;
  bool complete_ IPPLAYOUT_GUARDED_BY(completion_mutex_) = true;
  std::uint64_t run_number_ IPPLAYOUT_GUARDED_BY(completion_mutex_) = 0;
  std::vector<Registered> registered_events_ IPPLAYOUT_GUARDED_BY(completion_mutex_);
  std::vector<platform::EventHandle> completion_events_ IPPLAYOUT_GUARDED_BY(completion_mutex_);

  platform::Mutex pause_mutex_;  // paused_ changes under it and is read without
  platform::ConditionVariable resumed_;
  std::atomic<bool> paused_{false};
  std::uint64_t resume_count_ IPPLAYOUT_GUARDED_BY(pause_mutex_) = 0;
};

}  // namespace ipplayout
