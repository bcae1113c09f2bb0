// SPDX-License-Identifier: MIT
// The stream in datagrams as they come: what is behind the headers, RTP in the order of its
// sequence numbers and each number once.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/measure/figures/reorder_window.h"
#include "host/measure/figures/rtp_sequence.h"
#include "host/stream/byte_source.h"

namespace ipplay {

// Whether datagrams look like one RTP stream: most of them continue the numbers before them.
class RtpGuess {
 public:
  void Add(std::span<const std::uint8_t> datagram, std::size_t length);
  bool IsRtp() const { return 2 * in_row_ > datagrams_; }

 private:
  std::uint64_t datagrams_ = 0;
  std::uint64_t in_row_ = 0;
  std::uint32_t ssrc_ = 0;
  std::uint16_t last_ = 0;
};

class DatagramStream {
 public:
  // Of a datagram without RTP the whole payload of UDP belongs to the stream.
  explicit DatagramStream(bool rtp);
  DatagramStream(const DatagramStream&) = delete;
  DatagramStream& operator=(const DatagramStream&) = delete;
  ~DatagramStream();

  // Empty ones add nothing.
  void Add(std::span<const std::uint8_t> datagram, std::int64_t arrival_ns);
  // No more datagrams will come: those that wait for missing ones go on.
  void Flush();

  bool HasBytes() const { return BytesWaiting() > 0; }
  std::size_t BytesWaiting() const { return bytes_.size() - taken_; }
  // Takes bytes of the stream; see ByteSource::Arrivals(). What came late and was put in order has
  // the time of what follows it.
  std::size_t Take(std::span<std::uint8_t> buffer);
  std::span<const Arrival> Arrivals() const { return taken_arrivals_; }

  // Of all that was added.
  const DatagramFacts& Facts() const { return facts_; }
  std::vector<std::string> Notes() const;

 private:
  void DropTaken();
  void AddPayload(std::span<const std::uint8_t> payload, std::int64_t arrival_ns,
                  std::uint32_t missing);
  std::uint32_t MissingBefore(std::uint16_t number);
  void Count(std::size_t bytes, std::int64_t arrival_ns, std::uint32_t missing);

  std::unique_ptr<measure::RtpSequence> sequence_;  // null without RTP
  measure::ReorderWindow window_;
  std::optional<std::uint16_t> last_number_;  // of what the window has delivered
  std::optional<std::uint16_t> stray_;        // number in hand that is far from all others
  std::vector<std::uint8_t> bytes_;           // of the stream, from offset start_ on
  std::size_t taken_ = 0;                     // of these
  std::uint64_t start_ = 0;
  std::vector<Arrival> arrivals_;        // of what is in bytes_
  std::vector<Arrival> taken_arrivals_;  // of what was taken last
  std::uint64_t without_rtp_ = 0;        // datagrams that should have a header and have none
  std::uint64_t new_from_ = 0;           // offset in the stream of what the last Add() has brought
  DatagramFacts facts_;
  bool last_differs_ = false;  // the last one holds more or less than the first
};

}  // namespace ipplay
