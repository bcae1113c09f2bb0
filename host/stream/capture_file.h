// SPDX-License-Identifier: MIT
// One flow of a pcap or pcapng file as an input: the stream in its UDP or RTP payload.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/base/address.h"
#include "host/base/result.h"
#include "host/measure/capture/flow_key.h"
#include "host/stream/datagram_stream.h"

namespace ipplay {

struct CaptureFlow {
  measure::FlowKey key;
  std::uint64_t datagrams = 0;
  bool is_rtp = false;
  bool has_packets = false;  // most datagrams begin with a transport packet
};

// Whether a file begins as a capture does.
bool IsCapture(const std::string& path);

class CaptureFile : public ByteSource {
 public:
  // Reads the capture for its flows, and the chosen one for its length. Without a choice it takes
  // the only flow, or the only one with transport packets; `raw` sees no packets.
  static Result<std::unique_ptr<ByteSource>> Open(const std::string& path,
                                                  const std::optional<Endpoint>& choice, bool raw,
                                                  int stop_fd);

  ~CaptureFile() override;

  std::optional<std::uint64_t> Size() const override { return size_; }
  std::size_t Read(std::span<std::uint8_t> buffer) override;
  void Seek(std::uint64_t offset) override;
  std::span<const Arrival> Arrivals() const override { return stream_->Arrivals(); }
  std::optional<DatagramFacts> Datagrams() const override { return datagrams_; }
  bool IsStopped() const override { return stopped_; }
  int ReadError() const override { return error_; }
  std::vector<std::string> Notes() const override { return notes_; }

 private:
  class Frames;

  CaptureFile(std::string path, const CaptureFlow& flow, int stop_fd);
  bool Restart();
  bool ReadFrames();
  void Measure();

  std::string path_;
  CaptureFlow flow_;
  int stop_fd_;
  std::unique_ptr<Frames> frames_;
  std::unique_ptr<DatagramStream> stream_;
  std::uint64_t offset_ = 0;
  std::uint64_t size_ = 0;
  DatagramFacts datagrams_;
  std::vector<std::string> notes_;
  bool stopped_ = false;
  int error_ = 0;
};

}  // namespace ipplay
