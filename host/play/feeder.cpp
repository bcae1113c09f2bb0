// SPDX-License-Identifier: MIT
#include "host/play/feeder.h"

namespace ipplay {

Feeder::Feeder(std::unique_ptr<RoundReader> reader, const EditPlan& edits,
               std::optional<std::uint64_t> rounds, Sink sink, StreamFaults* faults)
    : reader_(std::move(reader)),
      editor_(reader_->Format(), edits),
      rounds_(rounds),
      sink_(std::move(sink)),
      faults_(faults) {}

Feeder::~Feeder() {
  Stop();
  Join();
}

void Feeder::Join() {
  if (thread_.joinable()) {
    thread_.join();
  }
}

void Feeder::Start() {
  thread_ = std::thread(&Feeder::Run, this);
}

void Feeder::Run() {
  WordWriter writer(sink_.write);
  bool written = PlayRound(writer);
  while (written && StartNextRound()) {
    written = PlayRound(writer);
  }
  if (!written || stop_.load(std::memory_order_relaxed)) {
    return;
  }
  const auto write = [&](StreamEditor::Bytes bytes) { return Write(writer, bytes); };
  if (!editor_.Finish(write) || !writer.Finish()) {
    return;
  }
  padding_.store(writer.Padding(), std::memory_order_relaxed);
  sink_.terminate();
}

bool Feeder::Write(WordWriter& writer, StreamEditor::Bytes bytes) const {
  return writer.Write(faults_ != nullptr ? faults_->Run(bytes) : bytes);
}

bool Feeder::PlayRound(WordWriter& writer) {
  const auto write = [&](StreamEditor::Bytes bytes) { return Write(writer, bytes); };
  while (!stop_.load(std::memory_order_relaxed)) {
    const auto packets = reader_->Next();
    if (packets.empty()) {
      break;
    }
    if (sink_.arrived) {
      sink_.arrived(reader_->ArrivalOf(packets.size() - 1));
    }
    if (!editor_.Run(packets, write)) {
      return false;
    }
  }
  read_error_.store(reader_->ReadError(), std::memory_order_relaxed);
  return editor_.EndRound(write);
}

bool Feeder::StartNextRound() {
  if (stop_.load(std::memory_order_relaxed) || reader_->ReadError() != 0) {
    return false;
  }
  if (rounds_ && round_ >= *rounds_) {
    return false;
  }
  ++round_;
  reader_->StartNextRound();
  editor_.StartNextRound();
  return true;
}

}  // namespace ipplay
