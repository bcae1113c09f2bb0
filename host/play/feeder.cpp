// SPDX-License-Identifier: MIT
#include "host/play/feeder.h"

#include "host/base/capabilities.h"

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
  KeepCapabilities({});  // it reads what anybody may have sent
  reader_->DoWhileWaiting(sink_.idle);
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
    if (sink_.wants_datagrams) {
      if (!PlayDatagrams(packets, write)) {
        return false;
      }
      continue;
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

// A packet belongs to the datagram that its first byte came in.
bool Feeder::PlayDatagrams(std::span<std::uint8_t> packets, const StreamEditor::Emit& write) {
  const std::size_t unit = reader_->Format().packet_bytes;
  for (std::size_t at = 0; at < packets.size();) {
    const auto arrival = reader_->ArrivalOf(at);
    if (arrival && arrival->offset != datagram_) {
      datagram_ = arrival->offset;
      sink_.arrived(arrival);
    }
    const std::size_t together = reader_->SameArrival(at, packets.size());
    const std::size_t count = (together + unit - 1) / unit * unit;
    if (!editor_.Run(packets.subspan(at, count), write)) {
      return false;
    }
    at += count;
  }
  return true;
}

bool Feeder::StartNextRound() {
  if (stop_.load(std::memory_order_relaxed) || reader_->ReadError() != 0) {
    return false;
  }
  if (rounds_ && round_ >= *rounds_) {
    return false;
  }
  ++round_;
  datagram_.reset();
  reader_->StartNextRound();
  editor_.StartNextRound();
  if (const auto pid = editor_.PartPcrPid(); pid && sink_.follow) {
    sink_.follow(*pid);
  }
  return true;
}

}  // namespace ipplay
