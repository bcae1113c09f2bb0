// SPDX-License-Identifier: MIT
// The worker thread that paces batches of frames and puts them on the wire.
#pragma once

#include <atomic>

#include "platform/signal.h"
#include "transmit/osa_thread.h"
#include "transmit/parametric_manager.h"
#include "transmit/seconds.h"

namespace ipplayout {

class BatchPacer;
class PcapRtInterface;
class Timestamp;

// Controlled by the lifecycle's thread. Interface and manager are not owned; they are set before
// Start and outlive the run.
class PacketTransmitterThread final : public OsaThread {
 public:
  PacketTransmitterThread();

  void SetInterface(PcapRtInterface* interface) { interface_ = interface; }
  void SetParametricManager(const CParametricManagerBase* manager) { parameters_ = manager; }

  // From its return on WaitUntilFinished waits for this run, however late the thread begins.
  bool Start();
  // Also wakes a transmitter that waits for a batch. A batch in hand still leaves.
  void Stop() override;
  void WaitUntilFinished();

 private:
  void Run() override;
  void TransmitBatches();
  void PaceBatch(BatchPacer& pacer, Timestamp& mark, Seconds jitter_sum);

  PcapRtInterface* interface_ = nullptr;
  const CParametricManagerBase* parameters_ = nullptr;
  platform::Signal finished_;
  std::atomic<bool> running_{false};  // from Start until a waiter has seen the run end
};

}  // namespace ipplayout
