// SPDX-License-Identifier: MIT
// Writing a ledger to a capture file, each frame with a comment on what became of it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "driver/opened.h"
#include "driver/pcapng_writer.h"
#include "ipplayout/playouts.h"
#include "platform/deadline_waiter.h"
#include "transmit/departure_ledger.h"
#include "transmit/osa_thread.h"

namespace ipplayout {

// "datagram 7: 12.345 us late (kernel stamp); wrong UDP checksum on purpose".
std::string LedgerComment(const IpPlayoutDeparture& departure);

// Takes the records of one ledger, which keeps the frames, too. In real time a thread of its own
// does, which is started for it; in virtual time whoever finds the ledger full does.
class LedgerFile final : public OsaThread {
 public:
  using Time = std::chrono::nanoseconds;

  // `epoch` is the time 0 of the ledger's clock since 1970. What becomes of the file, and of
  // anything else at the path, is as for OutputFile.
  static Opened<LedgerFile> Open(const std::string& path, const std::string& interface, Time epoch,
                                 DepartureLedger& ledger);
  ~LedgerFile() override;

  // What the ledger holds. Not beside the thread.
  void Drain();

  // After the last record: writes what is left, without patience with a pipe, and gives the file
  // its name. 0, or a system error number.
  int Finish();
  // Records that could not be written. Any thread.
  std::uint64_t LeftOut() const { return left_out_.load(std::memory_order_relaxed); }

 private:
  LedgerFile(std::unique_ptr<PcapngWriter> writer, Time epoch, DepartureLedger& ledger);

  void Run() override;
  void StopThread();
  bool Write(const IpPlayoutDeparture& departure);

  const std::unique_ptr<PcapngWriter> writer_;
  const Time epoch_;
  DepartureLedger& ledger_;
  platform::DeadlineWaiter waiter_;  // for its patience
  std::atomic<std::uint64_t> left_out_{0};
};

}  // namespace ipplayout
