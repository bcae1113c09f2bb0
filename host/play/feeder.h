// SPDX-License-Identifier: MIT
// The thread that reads the input and writes it into the library.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "host/play/word_writer.h"
#include "host/stream/restamper.h"
#include "host/stream/round_reader.h"

namespace ipplay {

class Feeder {
 public:
  struct Sink {
    WordWriter::WriteWords write;     // see WordWriter; may block
    std::function<void()> terminate;  // declares the end of the data; may block until it has left
  };

  // Plays `rounds` rounds, or without end if it is empty.
  Feeder(std::unique_ptr<RoundReader> reader, const std::optional<Restamper>& restamper,
         std::optional<std::uint64_t> rounds, Sink sink);
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

 private:
  void Run();
  bool PlayRound(WordWriter& writer);
  bool StartNextRound();

  std::unique_ptr<RoundReader> reader_;
  std::optional<Restamper> restamper_;
  std::optional<std::uint64_t> rounds_;
  Sink sink_;
  std::uint64_t round_ = 1;
  std::atomic<bool> stop_{false};
  std::atomic<unsigned> padding_{0};
  std::atomic<int> read_error_{0};
  std::thread thread_;
};

}  // namespace ipplay
