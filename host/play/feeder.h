// SPDX-License-Identifier: MIT
// The thread that reads the input and writes it into the library.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <thread>

#include "host/play/word_writer.h"
#include "host/stream/idle_work.h"
#include "host/stream/round_reader.h"
#include "host/stream/stream_editor.h"
#include "host/stream/stream_faults.h"

namespace ipplay {

class Feeder {
 public:
  struct Sink {
    WordWriter::WriteWords write;     // see WordWriter; may block
    std::function<void()> terminate;  // declares the end of the data; may block until it has left
    // When what is written next came, where the input knows it; may be null.
    std::function<void(const std::optional<Arrival>&)> arrived{};
    // The PCRs of what is written next are those of this PID; may be null.
    std::function<void(std::uint16_t)> follow{};
    // What is held back has to go on although nothing comes; may be null.
    IdleWork idle{};
    // `arrived` is called for each datagram of the input, before the first byte of it.
    bool wants_datagrams = false;
  };

  // Makes `faults`, if not null, in what it writes; they outlive it. Plays `rounds` streams: those
  // in a row one after the other and again, the only one as often; without end if it is empty.
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
  Damage Damaged() const { return reader_->Damaged(); }
  std::vector<std::string> InputNotes() const { return reader_->Notes(); }
  std::chrono::nanoseconds LongestWait() const { return editor_.LongestWait(); }

 private:
  void Run();
  bool Write(WordWriter& writer, StreamEditor::Bytes bytes) const;
  bool PlayRound(WordWriter& writer);
  bool PlayDatagrams(std::span<std::uint8_t> packets, const StreamEditor::Emit& write);
  bool StartNextRound();

  std::unique_ptr<RoundReader> reader_;
  StreamEditor editor_;
  std::optional<std::uint64_t> rounds_;
  Sink sink_;
  StreamFaults* const faults_;
  std::uint64_t round_ = 1;
  std::optional<std::uint64_t> datagram_;  // offset of the one in hand
  std::atomic<bool> stop_{false};
  std::atomic<unsigned> padding_{0};
  std::atomic<int> read_error_{0};
  std::thread thread_;
};

}  // namespace ipplay
