// SPDX-License-Identifier: MIT
// The bytes to play, and when they came.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/stream/byte_source.h"

namespace ipplay {

class Input {
 public:
  // `name` is that for messages.
  Input(std::unique_ptr<ByteSource> source, std::string name)
      : source_(std::move(source)), name_(std::move(name)) {}

  const std::string& Name() const { return name_; }
  // Of a file or a capture, which can also be read again; nothing for what comes once.
  std::optional<std::uint64_t> Size() const { return source_->Size(); }

  // Waits for data and returns the number of bytes read; 0 at the end of the data, at a stop and
  // after an error (see ReadError).
  std::size_t Read(std::span<std::uint8_t> buffer);
  // The same, but fills the buffer unless the data ends.
  std::size_t ReadFully(std::span<std::uint8_t> buffer);
  // What to do on time while a read waits for what comes at its own pace.
  void DoWhileWaiting(IdleWork work) { source_->DoWhileWaiting(std::move(work)); }
  // Puts bytes back; the next reads return them first.
  void Unread(std::vector<std::uint8_t> bytes);
  // Goes to an offset, where there is a size.
  void Seek(std::uint64_t offset);

  // When the byte at this offset came. Nothing where the source does not know, and for bytes that
  // have not been read yet or are forgotten.
  std::optional<Arrival> ArrivalOf(std::uint64_t offset) const;
  // Where bytes begin that came behind that one; nothing where that is not known.
  std::optional<std::uint64_t> NextArrival(std::uint64_t offset) const;
  // Nobody will ask for bytes before this offset again, unless they are read again.
  void ForgetArrivalsBefore(std::uint64_t offset);

  std::optional<DatagramFacts> Datagrams() const { return source_->Datagrams(); }
  // It goes on at its own pace, whoever reads.
  bool IsLive() const { return source_->IsLive(); }
  bool IsStopped() const { return source_->IsStopped(); }
  // errno of a read that failed, or 0.
  int ReadError() const { return source_->ReadError(); }
  std::vector<std::string> Notes() const { return source_->Notes(); }

 private:
  std::deque<Arrival>::const_iterator Behind(std::uint64_t offset) const;

  std::unique_ptr<ByteSource> source_;
  std::string name_;
  std::vector<std::uint8_t> unread_;
  std::size_t unread_taken_ = 0;
  std::deque<Arrival> arrivals_;  // in the order of offsets
};

}  // namespace ipplay
