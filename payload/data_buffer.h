// SPDX-License-Identifier: MIT
// The ring in which transport stream bytes wait for the data pump.
#pragma once

#include <atomic>
#include <cstdint>

#include "payload/payload_source.h"
#include "platform/mutex.h"
#include "platform/pages.h"
#include "platform/signal.h"

namespace ipplayout {

// What is called when bytes can be read that a reader has asked for in vain. By a writer; may not
// block.
class ReadableListener {
 public:
  virtual void OnReadable() = 0;

 protected:
  ~ReadableListener() = default;
};

// Host threads write, the pump thread alone reads. Both block: a writer until its whole write fits,
// the reader until a whole payload is there. Reading begins once the start threshold is reached.
//
// Reader and writer meet in the two totals only. Each side publishes its total, then looks at what
// the other side needs; the other side publishes its need, then looks at the total. All four steps
// are sequentially consistent, so one of the two always sees the other and no wake-up is lost.
class CIPDataBuffer final : public PayloadSource {
 public:
  explicit CIPDataBuffer(std::uint32_t capacity);

  bool ReadPayload(PDU& pdu, std::uint32_t offset, std::uint32_t reserved) override;
  // As ReadPayload, but waits for nothing: where it says kNotYet the listener is called once there
  // is something to read.
  enum class TryResult { kRead, kNotYet, kEnd };
  TryResult TryReadPayload(PDU& pdu, std::uint32_t offset);
  // For a reader that does not wait. While no run reads.
  void SetListener(ReadableListener* listener) { listener_ = listener; }
  std::uint32_t GetPacketSize() const override { return packet_size_; }

  // Appends all of the bytes; waits for room, which the next run makes where none is in progress.
  // False, appending none, when they could never fit, when a run ended or the ring was reset while
  // the caller waited, or when the ring is full between the end of a run and the Reset after it.
  bool Write(const std::uint8_t* data, std::uint32_t length);

  // Declares the end of the data: the reader takes what is left and then finds the end.
  bool Terminate();

  // A run is about to read; from here on a full ring makes writers wait. By the control thread.
  void BeginRun();
  // Nobody will read until the next Reset or BeginRun; releases blocked writers. By the reader.
  void EndRun();
  // Empties the ring for the next playout and releases blocked writers; those that come later wait
  // for that playout. While no run reads.
  bool Reset();

  // A run has ended and no other has begun: full, the ring refuses.
  bool HasNoReader();
  // Bytes that a write would not wait for.
  std::uint32_t Room() const { return static_cast<std::uint32_t>(Free()); }
  bool IsEmpty() const { return Fill() == 0; }
  std::uint32_t IsTerminated() const { return terminated_.load() ? 1 : 0; }
  // The end was declared and everything written before it has been read.
  bool HasEnded() const { return IsTerminated() != 0 && IsEmpty(); }

  // Bytes that must be held before reading begins. False when there is no storage.
  bool SetStartThreshold(std::uint32_t bytes);
  bool SetPacketSize(std::uint32_t bytes);
  // Size of the ring in bytes; 0 when its storage could not be had.
  std::uint32_t GetCapacity() const { return static_cast<std::uint32_t>(storage_.Size()); }

 private:
  std::uint64_t Fill() const { return written_.load() - read_.load(); }
  std::uint64_t Free() const { return storage_.Size() - Fill(); }
  bool IsReadable(std::uint32_t wanted) const;
  void WaitUntilReadable(std::uint32_t wanted);
  void NeedSpace(std::uint32_t length) IPPLAYOUT_REQUIRES(writers_mutex_);
  void CopyIn(const std::uint8_t* data, std::uint32_t length) IPPLAYOUT_REQUIRES(writers_mutex_);
  void CopyOut(PDU& pdu, std::uint32_t offset, std::uint32_t length);
  bool TakePayload(PDU& pdu, std::uint32_t offset, std::uint32_t wanted);
  void WakeReader();
  void CallReader();
  void WakeWriters();
  void ReleaseWriters() IPPLAYOUT_REQUIRES(writers_mutex_);

  platform::Pages storage_;

  // Set by the control thread while no run reads.
  std::atomic<std::uint32_t> packet_size_{0};
  std::atomic<std::uint32_t> start_threshold_{0};

  ReadableListener* listener_ = nullptr;

  std::atomic<bool> started_{false};
  std::atomic<bool> terminated_{false};

  // The writing side.
  platform::Mutex writers_mutex_;
  platform::ConditionVariable space_freed_;
  std::uint32_t write_position_ IPPLAYOUT_GUARDED_BY(writers_mutex_) = 0;
  std::uint64_t run_endings_ IPPLAYOUT_GUARDED_BY(writers_mutex_) = 0;
  bool reader_gone_ IPPLAYOUT_GUARDED_BY(writers_mutex_) = false;

  // One cache line for what the writer stores, one for what the reader stores.
  alignas(64) std::atomic<std::uint64_t> written_{0};
  // Least space in bytes that a blocked writer waits for. Stored under the mutex.
  std::atomic<std::uint32_t> writer_needs_{0};
  alignas(64) std::atomic<std::uint64_t> read_{0};
  std::atomic<std::uint32_t> reader_needs_{0};  // bytes that a blocked reader waits for
  std::uint32_t read_position_ = 0;             // reader only
  alignas(64) platform::Signal data_ready_;
};

}  // namespace ipplayout
