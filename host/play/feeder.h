// SPDX-License-Identifier: MIT
// The thread that reads the input and writes it into the library.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "host/play/word_writer.h"
#include "host/stream/round_reader.h"
#include "host/stream/stream_editor.h"
#include "host/stream/stream_faults.h"

namespace ipplay {

class Feeder {
 public:
  struct Sink {
    WordWriter::WriteWords write;     // see WordWriter; may block
    std::function<void()> terminate;  // declares the end of the data; may block until it has left
    // What is written next came at this time, since 1970 where the input knows it; may be null.
    std::function<void(std::optional<std::int64_t>)> arrived{};
  };

  // Makes `faults`, if not null, in what it writes; they outlive it. Plays `rounds` rounds, or
  // without end if it is empty.
  Feeder(std::unique_ptr<RoundReader> reader, const EditPlan& edits,
         std::optional<std::uint64_t> rounds, Sink sink, StreamFaults* faults = nullptr);
  // Stops and joins the thread. Release a blocking call of `sink` first.
  ~Feeder();

  void Start();
  // Prevents further writes; a blocking one has to be released by other means, before Join().
  void Stop() { stop_.store(true, std::memory_order_relaxed); }

  void Join();

  // For any thread: zero bytes added at the end, and errno of a failed read (0 for none).
  unsigned Padding() const { return padding_.load(std::memory_order_relaxed); }
  int ReadError() const { return read_error_.load(std::memory_order_relaxed); }
  // Once joined.
  const Damage& Damaged() const { return reader_->Damaged(); }
  std::vector<std::string> InputNotes() const { return reader_->Notes(); }
  std::chrono::nanoseconds LongestWait() const { return editor_.LongestWait(); }

 private:
  void Run();
  bool Write(WordWriter& writer, StreamEditor::Bytes bytes) const;
  bool PlayRound(WordWriter& writer);
  bool StartNextRound();

  std::unique_ptr<RoundReader> reader_;
  StreamEditor editor_;
  std::optional<std::uint64_t> rounds_;
  Sink sink_;
  StreamFaults* const faults_;
  std::uint64_t round_ = 1;
  std::atomic<bool> stop_{false};
  std::atomic<unsigned> padding_{0};
  std::atomic<int> read_error_{0};
  std::thread thread_;
};

}  // namespace ipplay
