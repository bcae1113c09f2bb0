// SPDX-License-Identifier: MIT
#include "payload/run_statistics.h"

#include "payload/error_insertion_manager.h"
#include "protocol/pdu.h"

namespace ipplayout {

void RunStatistics::Begin(const DatagramShape& shape) {
  shape_ = shape;
  payload_bytes_ = 0;
}

void RunStatistics::Count(const PDU& frame, CErrorInsertionManager& errors) {
  const std::uint32_t payload = frame.Length() - shape_.header_room;
  if (errors.WasPacketLost()) {
    errors.AddLostBytes(static_cast<std::int32_t>(payload));
    errors.CountLostPacket();
  }
  if (const std::uint64_t clearings = clearings_.load(); clearings != counted_.clearings) {
    counted_ = {{}, clearings};
  }
  PlayoutStatistics& statistics = counted_.statistics;
  ++statistics.DatagramsSent;
  statistics.BytesSent += frame.Length();
  statistics.DatagramSize = shape_.datagram_size;
  if (shape_.packet_size == 0) {
    statistics.TSBytesSent += payload;
  } else {
    const double packet_size = shape_.packet_size;
    payload_bytes_ += payload;
    statistics.TSPacketsSent = static_cast<std::uint64_t>(payload_bytes_ / packet_size);
    statistics.TSBytesSent =
        static_cast<std::uint64_t>(payload_bytes_ * shape_.ts_packet_size / packet_size);
    statistics.TSPacketSize = shape_.ts_packet_size;
  }
  ErrorStatistics counts;
  errors.CopyStatistics(counts);
  statistics.LostPackets = counts.lost_packets;
  statistics.SequenceErrors = counts.sequence_errors;
  statistics.IPChecksumErrors = counts.ip_checksum_errors;
  statistics.UDPChecksumErrors = counts.udp_checksum_errors;
  statistics.Jitter = counts.jitter;
  statistics.LostBytes = counts.lost_bytes;
  published_.Publish(counted_);
}

PlayoutStatistics RunStatistics::Read() const {
  // Before the record, so that one that is newer than a clearing is not taken for an older one.
  const std::uint64_t clearings = clearings_.load();
  const Counted counted = published_.Read();
  return counted.clearings < clearings ? PlayoutStatistics{} : counted.statistics;
}

}  // namespace ipplayout
