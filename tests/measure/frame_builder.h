// SPDX-License-Identifier: MIT
// Frames and transport stream packets for tests, field by field.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <vector>

namespace ipplay::measure::testing {

using Bytes = std::vector<std::uint8_t>;

// Bytes from hex digits; white space between them is ignored.
inline Bytes FromHex(std::string_view text) {
  Bytes bytes;
  int digits = 0;
  int value = 0;
  for (const char c : text) {
    if (c == ' ' || c == '\n') {
      continue;
    }
    value = value * 16 + (c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
    if (++digits % 2 == 0) {
      bytes.push_back(static_cast<std::uint8_t>(value));
      value = 0;
    }
  }
  return bytes;
}

// Appends numbers of two or four bytes, most significant byte first.
inline void Append16(Bytes& bytes, std::uint32_t value) {
  bytes.push_back(static_cast<std::uint8_t>(value >> 8));
  bytes.push_back(static_cast<std::uint8_t>(value));
}
inline void Append32(Bytes& bytes, std::uint32_t value) {
  Append16(bytes, value >> 16);
  Append16(bytes, value & 0xFFFF);
}

struct RtpFields {
  std::uint16_t sequence_number = 0;
  std::uint32_t timestamp = 0;
  std::uint32_t ssrc = 1;
  std::uint8_t payload_type = 33;
};

inline Bytes RtpPacket(const RtpFields& fields, const Bytes& payload) {
  Bytes packet{0x80, fields.payload_type};
  Append16(packet, fields.sequence_number);
  Append32(packet, fields.timestamp);
  Append32(packet, fields.ssrc);
  packet.insert(packet.end(), payload.begin(), payload.end());
  return packet;
}

// Ethernet, IPv4 and UDP around a payload, without checksums: the IP header's is wrong, the UDP
// one is absent.
inline Bytes UdpFrame(const Bytes& payload, std::uint16_t destination_port = 5004) {
  Bytes frame = FromHex("01005e010101 020000000001 0800 4500");
  Append16(frame, static_cast<std::uint32_t>(28 + payload.size()));
  for (const std::uint8_t byte : FromHex("0000 0000 4011 0000 0a010203 ef010101 1388")) {
    frame.push_back(byte);
  }
  Append16(frame, destination_port);
  Append16(frame, static_cast<std::uint32_t>(8 + payload.size()));
  Append16(frame, 0);
  frame.insert(frame.end(), payload.begin(), payload.end());
  return frame;
}

struct TsFields {
  std::uint16_t pid = 0x100;
  std::uint8_t counter = 0;
  bool error = false;
  bool discontinuity = false;
  std::optional<std::uint64_t> pcr = std::nullopt;
  bool has_payload = true;
  bool start = false;
  Bytes payload = {};  // the rest is stuffing
};

inline Bytes TsPacketBytes(const TsFields& fields) {
  Bytes packet{0x47,
               static_cast<std::uint8_t>((fields.error ? 0x80 : 0) | (fields.start ? 0x40 : 0) |
                                         (fields.pid >> 8)),
               static_cast<std::uint8_t>(fields.pid)};
  const bool adaptation = fields.pcr || fields.discontinuity || !fields.has_payload;
  packet.push_back(static_cast<std::uint8_t>((adaptation ? 0x20 : 0) |
                                             (fields.has_payload ? 0x10 : 0) | fields.counter));
  if (adaptation) {
    packet.push_back(fields.pcr ? 7 : 1);
    packet.push_back(
        static_cast<std::uint8_t>((fields.discontinuity ? 0x80 : 0) | (fields.pcr ? 0x10 : 0)));
    if (fields.pcr) {
      const std::uint64_t base = *fields.pcr / 300;
      const auto extension = static_cast<std::uint32_t>(*fields.pcr % 300);
      Append32(packet, static_cast<std::uint32_t>(base >> 1));
      Append16(packet, static_cast<std::uint32_t>((base & 1) << 15) | 0x7E00U | extension);
    }
  }
  packet.insert(packet.end(), fields.payload.begin(), fields.payload.end());
  packet.resize(188, 0xFF);
  return packet;
}

// Seven packets of one PID, counting on from `counter`.
inline Bytes TsPayload(std::uint8_t counter = 0, std::uint16_t pid = 0x100) {
  Bytes payload;
  for (int i = 0; i < 7; ++i) {
    const Bytes packet =
        TsPacketBytes({.pid = pid, .counter = static_cast<std::uint8_t>((counter + i) & 15)});
    payload.insert(payload.end(), packet.begin(), packet.end());
  }
  return payload;
}

}  // namespace ipplay::measure::testing
