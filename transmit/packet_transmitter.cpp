// SPDX-License-Identifier: MIT
#include "transmit/packet_transmitter.h"

#include <algorithm>
#include <cstdio>

#include "transmit/batch_pacer.h"
#include "transmit/pcap_rt_interface.h"
#include "transmit/timestamp.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

// Some thirty years: keeps the point in time at the end of a wait within nanoseconds of 64 bits.
constexpr Seconds kLongestWait{1e9};

nanoseconds ToNanoseconds(Seconds time) {
  return std::chrono::duration_cast<nanoseconds>(std::min(time, kLongestWait));
}

}  // namespace

PacketTransmitterThread::PacketTransmitterThread()
    : OsaThread("PacketTransmitterThread", 0, OsaThreadPriority::BelowNormal()) {}

bool PacketTransmitterThread::Start() {
  Join();
  finished_.Reset();
  running_.store(true);
  const bool started = OsaThread::Start();
  if (!started) {
    running_.store(false);
  }
  return started;
}

void PacketTransmitterThread::Stop() {
  OsaThread::Stop();
  if (interface_ != nullptr) {
    interface_->SignalQueueReady();
  }
}

void PacketTransmitterThread::WaitUntilFinished() {
  if (running_.load()) {
    finished_.Wait();
    running_.store(false);
  }
}

void PacketTransmitterThread::Run() {
  platform::GiveUpCapabilities();
  if (!platform::UseFinestTimerSlack()) {
    std::printf("timeBeginPeriod failed");
  }
  TransmitBatches();
  finished_.Set();
}

void PacketTransmitterThread::TransmitBatches() {
  const bool jitter = parameters_->IsJitterEnabled() != 0;
  BatchPacer pacer(interface_->GetPacketTime(), interface_->GetPacketsPerQueue(),
                   parameters_->IsBurstMode() != 0);
  Timestamp mark;
  bool first = true;
  while (!StopRequested() && !interface_->IsFinished()) {
    interface_->WaitForQueue();
    if (!interface_->HasBatch()) {
      continue;
    }
    Seconds jitter_sum{0};
    if (jitter) {
      jitter_sum = interface_->GetJitterSum();
      interface_->ClearJitterSum();
    }
    if (first) {
      mark = Timestamp(interface_->Waiter().Now());
      first = false;
      interface_->PassBatch();
    } else {
      PaceBatch(pacer, mark, jitter_sum);
    }
    if (interface_->TransmitQueue() == 0) {
      return;
    }
  }
}

// Waits for the batch's place on the grid. The deadline counts from the mark, so that the time
// spent here does not delay the batch.
void PacketTransmitterThread::PaceBatch(BatchPacer& pacer, Timestamp& mark, Seconds jitter_sum) {
  const nanoseconds now = interface_->Waiter().Now();
  const Timestamp taken_up(now);
  const BatchPacer::Pace pace = pacer.Next(taken_up.Elapsed(mark), jitter_sum);
  mark = taken_up;
  if (pace.gap_correction) {
    interface_->SetGapCorrection(*pace.gap_correction);
  }
  interface_->SetQueueStartAdvance(pace.queue_start_advance);
  interface_->PassBatch();
  if (pace.wait > Seconds(0)) {
    interface_->Waiter().WaitUntil(now + ToNanoseconds(pace.wait));
  }
}

}  // namespace ipplayout
