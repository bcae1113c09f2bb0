// SPDX-License-Identifier: MIT
#include "host/play/feeder.h"

namespace ipplay {

Feeder::Feeder(std::unique_ptr<RoundReader> reader, const std::optional<Restamper>& restamper,
               std::optional<std::uint64_t> rounds, Sink sink)
    : reader_(std::move(reader)), restamper_(restamper), rounds_(rounds), sink_(std::move(sink)) {}

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
  if (!writer.Finish()) {
    return;
  }
  padding_.store(writer.Padding(), std::memory_order_relaxed);
  sink_.terminate();
}

bool Feeder::PlayRound(WordWriter& writer) {
  const auto write = [&writer](Restamper::Bytes bytes) { return writer.Write(bytes); };
  while (!stop_.load(std::memory_order_relaxed)) {
    const auto packets = reader_->Next();
    if (packets.empty()) {
      break;
    }
    if (!(restamper_ ? restamper_->Run(packets, write) : writer.Write(packets))) {
      return false;
    }
  }
  read_error_.store(reader_->ReadError(), std::memory_order_relaxed);
  return !restamper_ || restamper_->Run({}, write);
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
  if (restamper_) {
    restamper_->StartNextRound();
  }
  return true;
}

}  // namespace ipplay
