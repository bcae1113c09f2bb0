// SPDX-License-Identifier: MIT
// Forward error correction by parity over columns and rows of RTP datagrams (SMPTE ST 2022-1, on
// the packets of RFC 2733).
//
// FEC datagram behind its RTP header:
//
//   offset  size
//        0     2  SNBase: sequence number of the first datagram that is protected
//        2     2  length recovery: parity of the payload lengths
//        4     1  E = 1, PT recovery (7 bits)
//        5     3  mask, 0
//        8     4  TS recovery
//       12     1  N = 0, D (1: of a row), type = 0 (XOR), index = 0
//       13     1  offset: L for a column, 1 for a row
//       14     1  NA: datagrams that are protected
//       15     1  SNBase extension, 0
//       16        parity of the payloads, shorter ones filled up with zeros
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ipplayout {

struct FecMatrix {
  std::uint32_t columns = 0;  // L, 1 to 20
  std::uint32_t rows = 0;     // D, 4 to 20; L times D at most 100
  bool protects_rows = false;
  // All columns begin with the first row of a matrix; else each begins some rows behind the one
  // before it, so that they end one after the other.
  bool is_aligned = true;
};

// Takes the RTP datagrams of a stream in their order and says, after each, which FEC datagrams are
// to follow it: at most one of each kind. Those of columns are spread over the next matrix. Belongs
// to one thread; allocates nothing after its construction.
class FecEncoder {
 public:
  static constexpr std::size_t kHeaderLength = 16;
  static constexpr std::size_t kRtpHeaderLength = 12;

  // For payloads of up to `longest_payload` bytes behind the RTP header. Throws when there is no
  // memory.
  FecEncoder(const FecMatrix& matrix, std::size_t longest_payload);

  // The next datagram of the stream, from its RTP header on.
  void Add(std::span<const std::uint8_t> rtp);

  // Behind the last datagram: the next column that is left over is due. False when there is none.
  bool Flush();

  // FEC header and parity that are to follow the datagram added last; empty where none is. Valid
  // until the next Add or Flush.
  std::span<const std::uint8_t> ColumnDue() const { return column_due_; }
  std::span<const std::uint8_t> RowDue() const { return row_due_; }

 private:
  // Of the datagrams of one column or row so far.
  struct Parity {
    std::vector<std::uint8_t> bytes;  // header and parity
    std::size_t longest = 0;          // payload
    std::uint32_t count = 0;
    bool is_begun = false;
  };

  static void Begin(Parity& parity, std::span<const std::uint8_t> rtp);
  static void Include(Parity& parity, std::span<const std::uint8_t> rtp);
  std::span<const std::uint8_t> Finish(Parity& parity, bool is_row) const;
  void AddToColumn(std::span<const std::uint8_t> rtp);
  void AddToRow(std::span<const std::uint8_t> rtp);
  std::uint32_t RowsBehind(std::uint32_t column) const;

  const FecMatrix matrix_;
  std::vector<Parity> filling_;  // of the columns
  std::vector<Parity> waiting_;  // finished columns of an aligned matrix
  Parity row_;
  std::uint64_t index_ = 0;         // of the datagram to come
  std::uint32_t waiting_from_ = 0;  // the first that has not been sent
  std::span<const std::uint8_t> column_due_;
  std::span<const std::uint8_t> row_due_;
};

}  // namespace ipplayout
