// SPDX-License-Identifier: MIT
#include "payload/data_buffer.h"

#include <algorithm>
#include <cstring>

#include "platform/native_thread.h"
#include "protocol/pdu.h"

namespace ipplayout {

CIPDataBuffer::CIPDataBuffer(std::uint32_t capacity) : storage_(capacity) {}

bool CIPDataBuffer::Write(const std::uint8_t* data, std::uint32_t length) {
  if (length > GetCapacity()) {
    return false;
  }
  if (length == 0) {
    return true;
  }
  {
    const platform::MutexLock lock(writers_mutex_);
    const std::uint64_t endings = run_endings_;
    while (Free() < length) {
      if (reader_gone_) {
        return false;
      }
      NeedSpace(length);
      if (Free() < length) {
        space_freed_.Wait(writers_mutex_);
      }
      if (run_endings_ != endings) {
        return false;
      }
    }
    CopyIn(data, length);
    written_.store(written_.load(std::memory_order_relaxed) + length);
    if (!started_.load() && Fill() >= start_threshold_) {
      started_.store(true);
    }
  }
  WakeReader();
  if (listener_ == nullptr) {
    // Lets a pump on the same processor get at the data at once. What reads for a listener builds
    // well ahead, and hundreds of playouts that are filled before a start would yield in turn.
    platform::YieldProcessor();
  }
  return true;
}

void CIPDataBuffer::NeedSpace(std::uint32_t length) {
  const std::uint32_t least = writer_needs_.load();
  if (least == 0 || length < least) {
    writer_needs_.store(length);
  }
}

void CIPDataBuffer::CopyIn(const std::uint8_t* data, std::uint32_t length) {
  const std::uint32_t to_end = std::min(length, GetCapacity() - write_position_);
  std::memcpy(storage_.Data() + write_position_, data, to_end);
  std::memcpy(storage_.Data(), data + to_end, length - to_end);
  write_position_ = to_end == length ? write_position_ + length : length - to_end;
}

bool CIPDataBuffer::ReadPayload(PDU& pdu, std::uint32_t offset, std::uint32_t /*reserved*/) {
  const std::uint32_t wanted = pdu.Length() - offset;
  if (wanted == 0) {
    return false;
  }
  WaitUntilReadable(wanted);
  return TakePayload(pdu, offset, wanted);
}

CIPDataBuffer::TryResult CIPDataBuffer::TryReadPayload(PDU& pdu, std::uint32_t offset) {
  const std::uint32_t wanted = pdu.Length() - offset;
  if (wanted == 0) {
    return TryResult::kEnd;
  }
  reader_needs_.store(0);
  if (!IsReadable(wanted)) {
    reader_needs_.store(wanted);
    if (!IsReadable(wanted)) {
      return TryResult::kNotYet;
    }
    reader_needs_.store(0);
  }
  return TakePayload(pdu, offset, wanted) ? TryResult::kRead : TryResult::kEnd;
}

bool CIPDataBuffer::TakePayload(PDU& pdu, std::uint32_t offset, std::uint32_t wanted) {
  if (const std::uint64_t held = Fill(); held < wanted) {
    wanted = static_cast<std::uint32_t>(held);
    pdu.SetLength(offset + wanted);
    if (wanted == 0) {
      return false;
    }
  }
  CopyOut(pdu, offset, wanted);
  read_.store(read_.load(std::memory_order_relaxed) + wanted);
  WakeWriters();
  return true;
}

void CIPDataBuffer::CopyOut(PDU& pdu, std::uint32_t offset, std::uint32_t length) {
  const std::uint32_t to_end = std::min(length, GetCapacity() - read_position_);
  pdu.WriteBytes(storage_.Data() + read_position_, to_end, offset);
  pdu.WriteBytes(storage_.Data(), length - to_end, offset + to_end);
  read_position_ = to_end == length ? read_position_ + length : length - to_end;
}

bool CIPDataBuffer::IsReadable(std::uint32_t wanted) const {
  return started_.load() && (Fill() >= wanted || terminated_.load());
}

void CIPDataBuffer::WaitUntilReadable(std::uint32_t wanted) {
  while (!IsReadable(wanted)) {
    data_ready_.Reset();
    reader_needs_.store(wanted);
    if (!IsReadable(wanted)) {
      data_ready_.Wait();
    }
    reader_needs_.store(0);
  }
}

void CIPDataBuffer::WakeReader() {
  const std::uint32_t needs = reader_needs_.load();
  if (needs != 0 && IsReadable(needs)) {
    CallReader();
  }
}

void CIPDataBuffer::CallReader() {
  if (listener_ != nullptr) {
    listener_->OnReadable();
  } else {
    data_ready_.Set();
  }
}

void CIPDataBuffer::WakeWriters() {
  const std::uint32_t needs = writer_needs_.load();
  if (needs != 0 && Free() >= needs) {
    {
      // A writer between its look at the space and its sleep is asleep by now. Those that go on
      // waiting publish their needs again.
      const platform::MutexLock lock(writers_mutex_);
      writer_needs_.store(0);
    }
    space_freed_.NotifyAll();
  }
}

bool CIPDataBuffer::Terminate() {
  terminated_.store(true);
  started_.store(true);
  CallReader();
  return true;
}

void CIPDataBuffer::BeginRun() {
  const platform::MutexLock lock(writers_mutex_);
  reader_gone_ = false;
}

bool CIPDataBuffer::HasNoReader() {
  const platform::MutexLock lock(writers_mutex_);
  return reader_gone_;
}

void CIPDataBuffer::EndRun() {
  const platform::MutexLock lock(writers_mutex_);
  ReleaseWriters();
}

bool CIPDataBuffer::Reset() {
  const platform::MutexLock lock(writers_mutex_);
  written_.store(0);
  read_.store(0);
  write_position_ = 0;
  read_position_ = 0;
  terminated_.store(false);
  started_.store(false);
  data_ready_.Reset();
  ReleaseWriters();
  reader_gone_ = false;
  return true;
}

void CIPDataBuffer::ReleaseWriters() {
  ++run_endings_;
  reader_gone_ = true;
  writer_needs_.store(0);
  space_freed_.NotifyAll();
}

bool CIPDataBuffer::SetStartThreshold(std::uint32_t bytes) {
  if (GetCapacity() == 0) {
    return false;
  }
  {
    const platform::MutexLock lock(writers_mutex_);
    start_threshold_.store(bytes);
    // What was written ahead may be enough for a threshold that is lower than the one before it.
    if (Fill() > 0 && Fill() >= bytes) {
      started_.store(true);
    }
  }
  WakeReader();
  return true;
}

bool CIPDataBuffer::SetPacketSize(std::uint32_t bytes) {
  packet_size_.store(bytes);
  return true;
}

}  // namespace ipplayout
