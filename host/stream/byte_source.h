// SPDX-License-Identifier: MIT
// Where the bytes of an input come from: a file, a pipe, a capture, a socket.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/stream/idle_work.h"

namespace ipplay {

// The bytes from this offset on came at this time, up to the next one's.
struct Arrival {
  std::uint64_t offset = 0;
  std::int64_t time_ns = 0;   // since 1970
  std::uint32_t missing = 0;  // datagrams that did not come between these bytes and those before

  bool operator==(const Arrival&) const = default;
};

// The datagrams of a source that was read to its end.
struct DatagramFacts {
  std::uint64_t count = 0;
  std::uint64_t bytes = 0;        // of the stream, in all of them
  std::uint64_t missing = 0;      // by their RTP sequence numbers
  bool is_numbered = false;       // it is RTP
  std::uint32_t first_bytes = 0;  // of the stream in the first one
  bool are_alike = false;         // all hold as much, but for the last one
  std::int64_t first_ns = 0;      // arrival of the first, and of the last one
  std::int64_t last_ns = 0;

  bool operator==(const DatagramFacts&) const = default;
};

class ByteSource {
 public:
  ByteSource() = default;
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;
  virtual ~ByteSource() = default;

  // Where the bytes can be read again, how many there are.
  virtual std::optional<std::uint64_t> Size() const { return std::nullopt; }
  // Waits for bytes and returns their number; 0 at the end, at a stop and after an error. What
  // comes at its own pace does the idle work while it waits.
  virtual std::size_t Read(std::span<std::uint8_t> buffer) = 0;
  void DoWhileWaiting(IdleWork work) { idle_ = std::move(work); }
  // Goes to an offset; for a source with a size.
  virtual void Seek(std::uint64_t /*offset*/) {}
  // When the bytes came that the last Read() returned, in the order of their offsets; the first one
  // may lie before them. Empty where the source knows no times.
  virtual std::span<const Arrival> Arrivals() const { return {}; }

  // Where they are known from the start.
  virtual std::optional<DatagramFacts> Datagrams() const { return std::nullopt; }

  // It goes on at its own pace, whoever reads.
  virtual bool IsLive() const { return false; }
  // Reading ended at a stop.
  virtual bool IsStopped() const { return false; }
  // errno of a read that failed, or 0.
  virtual int ReadError() const { return 0; }
  // What the user should know about it, a line each; for the end of the run.
  virtual std::vector<std::string> Notes() const { return {}; }

 protected:
  const IdleWork& Idle() const { return idle_; }

 private:
  IdleWork idle_;
};

}  // namespace ipplay
