// SPDX-License-Identifier: MIT
#include "payload/fec_encoder.h"

#include <algorithm>
#include <utility>

#include "protocol/big_endian.h"

namespace ipplayout {
namespace {

constexpr std::size_t kSnBase = 0;
constexpr std::size_t kLengthRecovery = 2;
constexpr std::size_t kPayloadTypeRecovery = 4;
constexpr std::size_t kTimeRecovery = 8;
constexpr std::size_t kKind = 12;
constexpr std::size_t kOffset = 13;
constexpr std::size_t kProtected = 14;

constexpr std::uint8_t kExtended = 0x80;
constexpr std::uint8_t kRow = 0x40;
constexpr std::uint8_t kPayloadType = 0x7F;

constexpr std::size_t kRtpPayloadType = 1;
constexpr std::size_t kRtpSequence = 2;
constexpr std::size_t kRtpTime = 4;

template <std::size_t N>
void XorBigEndian(std::uint64_t value, std::uint8_t* at) {
  StoreBigEndian<N>(LoadBigEndian<N>(at) ^ value, at);
}

}  // namespace

FecEncoder::FecEncoder(const FecMatrix& matrix, std::size_t longest_payload)
    : matrix_(matrix), filling_(matrix.columns), waiting_(matrix.is_aligned ? matrix.columns : 0) {
  for (std::vector<Parity>* columns : {&filling_, &waiting_}) {
    for (Parity& column : *columns) {
      column.bytes.resize(kHeaderLength + longest_payload);
    }
  }
  row_.bytes.resize(kHeaderLength + longest_payload);
  waiting_from_ = matrix.columns;
}

void FecEncoder::Add(std::span<const std::uint8_t> rtp) {
  column_due_ = {};
  row_due_ = {};
  if (matrix_.protects_rows) {
    AddToRow(rtp);
  }
  AddToColumn(rtp);
  // Of a matrix of L columns and D rows one column follows every D datagrams of the next matrix.
  if (index_ % matrix_.rows == 0 && waiting_from_ < matrix_.columns) {
    column_due_ = Finish(waiting_[waiting_from_++], false);
  }
  ++index_;
}

bool FecEncoder::Flush() {
  row_due_ = {};
  column_due_ = {};
  if (waiting_from_ < matrix_.columns) {
    column_due_ = Finish(waiting_[waiting_from_++], false);
  }
  return !column_due_.empty();
}

void FecEncoder::AddToRow(std::span<const std::uint8_t> rtp) {
  if (index_ % matrix_.columns == 0) {
    Begin(row_, rtp);
  }
  Include(row_, rtp);
  if (row_.count == matrix_.columns) {
    row_due_ = Finish(row_, true);
  }
}

// Rows by which a column is ahead of the matrix of the first one.
std::uint32_t FecEncoder::RowsBehind(std::uint32_t column) const {
  return matrix_.is_aligned ? 0 : column * matrix_.rows / matrix_.columns;
}

void FecEncoder::AddToColumn(std::span<const std::uint8_t> rtp) {
  const auto column = static_cast<std::uint32_t>(index_ % matrix_.columns);
  const std::uint64_t row = index_ / matrix_.columns;
  Parity& parity = filling_[column];
  if (row >= RowsBehind(column) && (row - RowsBehind(column)) % matrix_.rows == 0) {
    Begin(parity, rtp);
  }
  if (!parity.is_begun) {
    return;
  }
  Include(parity, rtp);
  if (parity.count < matrix_.rows) {
    return;
  }
  if (!matrix_.is_aligned) {
    column_due_ = Finish(parity, false);
    return;
  }
  std::swap(parity, waiting_[column]);
  filling_[column].is_begun = false;
  if (column == matrix_.columns - 1) {
    waiting_from_ = 0;
  }
}

void FecEncoder::Begin(Parity& parity, std::span<const std::uint8_t> rtp) {
  std::fill(parity.bytes.begin(), parity.bytes.end(), 0);
  StoreBigEndian<2>(LoadBigEndian<2>(rtp.data() + kRtpSequence), parity.bytes.data() + kSnBase);
  parity.longest = 0;
  parity.count = 0;
  parity.is_begun = true;
}

void FecEncoder::Include(Parity& parity, std::span<const std::uint8_t> rtp) {
  std::uint8_t* const header = parity.bytes.data();
  const std::size_t most = parity.bytes.size() - kHeaderLength;
  const std::span<const std::uint8_t> payload =
      rtp.subspan(kRtpHeaderLength, std::min(rtp.size() - kRtpHeaderLength, most));
  XorBigEndian<2>(payload.size(), header + kLengthRecovery);
  header[kPayloadTypeRecovery] ^= static_cast<std::uint8_t>(rtp[kRtpPayloadType] & kPayloadType);
  XorBigEndian<4>(LoadBigEndian<4>(rtp.data() + kRtpTime), header + kTimeRecovery);
  std::uint8_t* const bytes = header + kHeaderLength;
  for (std::size_t i = 0; i < payload.size(); ++i) {
    bytes[i] ^= payload[i];
  }
  parity.longest = std::max(parity.longest, payload.size());
  ++parity.count;
}

std::span<const std::uint8_t> FecEncoder::Finish(Parity& parity, bool is_row) const {
  std::uint8_t* const header = parity.bytes.data();
  header[kPayloadTypeRecovery] |= kExtended;
  header[kKind] = is_row ? kRow : 0;
  header[kOffset] = static_cast<std::uint8_t>(is_row ? 1 : matrix_.columns);
  header[kProtected] = static_cast<std::uint8_t>(is_row ? matrix_.columns : matrix_.rows);
  return {header, kHeaderLength + parity.longest};
}

}  // namespace ipplayout
