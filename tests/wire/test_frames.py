# SPDX-License-Identifier: MIT
"""Every byte of clean playouts: layers, fields, sizes, replication, the numbers reported about them."""
import itertools
import struct
import unittest

from model import ones_complement_sum
from wire_case import (IPV4, IPV6, RTP, TAGGED, TYPICAL, TYPICAL_IPV6, UDP, Model, WireCase, datagrams,
                       play)

# How the stream is cut. A callable gets the length of all headers.
CUTS = {
    "seven packets": {},
    "frame size, whole 204-byte packets": {"TSPacketSize": 204, "PacketSizeMode": 0, "IPPacketSize": 1400},
    "time-stamped packets": {"TTSEnabled": 1, "TSPacketCount": 6},
    "time-stamped, by frame size": {"TTSEnabled": 1, "PacketSizeMode": 0, "IPPacketSize": 1000},
    "packets cut anywhere": {"PacketSizeMode": 0, "IPPacketSize": 1371, "TSFragmentation": 1},
    "raw, odd": {"TSPacketSize": 0, "PacketSizeMode": 1, "IPPacketSize": 1001},
    "raw, told of time stamps": {"TSPacketSize": 0, "IPPacketSize": 1001, "TTSEnabled": 1},
    "raw, one byte": {"TSPacketSize": 0, "IPPacketSize": lambda headers: headers + 1},
    "more packets than the MTU holds": {"TSPacketCount": 9},
    "cut at the MTU": {"TSPacketCount": 9, "TSFragmentation": 1},
    "raw, beyond the MTU": {"TSPacketSize": 0, "IPPacketSize": 1501},
    "jumbo frames": {"TSPacketCount": 80, "IPFragmentation": 1, "IPBitRate": 400.0},
    "jumbo frames, capped": {"TSPacketCount": 90, "IPFragmentation": 1, "IPBitRate": 400.0},
    "batches of ten": {"IPBitRate": 200.0},
}

BEYOND_1 = {"VLANEnabled": 2, "RandomSSRC": 2, "RandomSequenceNumber": 2, "TTSEnabled": 3, "TSFragmentation": 2,
            "PacketSizeMode": 0, "IPPacketSize": 1371}

FIELDS = {  # name: (settings, changes)
    "router alert": (TYPICAL, {"IPProtocol": 2}),
    "router alert, UDP, tagged": (TYPICAL, {"IPProtocol": 2, "ProtocolMode": UDP, **TAGGED}),
    "protocol 2 only in its low bits": (TYPICAL, {"IPProtocol": 258}),
    "protocol 6 under a UDP checksum": (TYPICAL, {"IPProtocol": 6}),
    "payload type with the marker bit": (TYPICAL, {"PayloadType": 0xA1}),
    "payload type of nine bits": (TYPICAL, {"PayloadType": 300}),
    "RTP version of three bits": (TYPICAL, {"RTPVersion": 5}),
    "RTP version 0": (TYPICAL, {"RTPVersion": 0}),
    "extension flag": (TYPICAL, {"RTPVersion": 0, "Extension": 2}),
    "extension below 0": (TYPICAL, {"RTPVersion": 1, "Extension": -1}),
    "settings that never reach the wire": (TYPICAL, {
        "Marker": 1, "Padding": 1, "CSRCCount": 3, "TimeStamp": 99, "Flags": 7, "HeaderLength": 15,
        "FragmentOffset": 100, "Checksum": 1, "TotalLength": 1, "Length": 1, "BroadcastType": 1}),
    "IPv4 version of eight bits": (TYPICAL, {"IPVersion": 0xF4}),
    "may fragment, small MTU": (TYPICAL, {"IPFragmentation": 2}),
    "fields wider than the wire": (TYPICAL, {
        "TTL": 0x1234, "SourcePort": 0x12345, "DestinationPort": 0x2FFFF, "Identification": 0xABCDEF,
        "SequenceNumber": 0x71234, "EProtocol": 0xA0800}),
    "flags beyond 1, which are off": (TYPICAL, BEYOND_1),
    "flags beyond 1 in every copy": (TYPICAL, {**BEYOND_1, "ReplicationCount": 1}),
    "numbers that wrap": (TYPICAL, {"SequenceNumber": 65534, "Identification": 65533}),
    "IPv6 version of five bits": (TYPICAL_IPV6, {"IPv6Version": 0x16}),
    "flow label beyond 20 bits": (TYPICAL_IPV6, {"FlowLabel": 0xFFABCDE}),
    "IPv6 with other next header": (TYPICAL_IPV6, {"NextHeader": 0, "HopLimit": 255, "IPProtocol": 2}),
    "service tag": (TYPICAL, {**TAGGED, "TPID": 0x88A8}),
    "unknown tag type": (TYPICAL, {**TAGGED, "TPID": 0x59100}),
    "tag fields wider than the wire": (TYPICAL, {**TAGGED, "VID": 0x1005, "VLANPriorityLevel": 9, "CFI": 2}),
    "tag in a tag": (TYPICAL, {**TAGGED, "EProtocol": 0x8100}),
    "clock from the frame size setting": (TYPICAL, {"IPPacketSize": 1316, "IPBitRate": 10.0}),
    "clock of whole ticks": (TYPICAL, {"IPPacketSize": 1000, "IPBitRate": 8.0}),
    "clock step below a tick": (TYPICAL, {"IPPacketSize": 60, "IPBitRate": 79.9}),
    "sizes beyond 32 bits": (TYPICAL, {"TSPacketSize": 0xFFFFFFFF, "TSPacketCount": 0xFFFFFFFF,
                                       "TSFragmentation": 1}),
    "increments without replication": (TYPICAL, {"ReplicationCount": -3, "TOSIncrement": 1,
                                                 "DestinationPortIncrement": 1, "SSRCIncrement": 1}),
}

TIMINGS = {
    "jitter, square": {"JitterEnabled": 1, "JitterPeriod": 100.0},
    "jitter, Gaussian": {"JitterEnabled": 1, "JitterDistributionType": 1, "JitterPeriod": 50.0},
    "jitter, squared difference": {"JitterEnabled": 1, "JitterDistributionType": 2, "JitterPeriod": 50.0},
    "jitter, sine": {"JitterEnabled": 1, "JitterDistributionType": 3, "JitterPeriod": 50.0},
    "bursts by size": {"BurstMode": 1, "BurstValueType": 1, "BurstSize": 7},
    "bursts by period": {"BurstMode": 1, "BurstValueType": 0, "BurstPeriod": 3},
    "bursts with jitter": {"BurstMode": 1, "BurstValueType": 1, "BurstSize": 5, "JitterEnabled": 1,
                           "JitterPeriod": 100.0},
    "rate out of reach": {"IPBitRate": 4000.0},
    "primed to four fifths": {"PlayFileSizeForIP": 25 * 1316},
    "announced more than it writes": {"PlayFileSizeForIP": 1 << 40},
    "threads": {"PlayerThreadPriority": 0},
}

INCREMENTS = {
    "TOSIncrement": 0x81, "TTLIncrement": 300, "SourceIPIncrement": bytes((0, 0, 1, 0)),
    "DestinationIPIncrement": bytes((0, 0, 0, 0x80)), "SourcePortIncrement": 0x7000,
    "DestinationPortIncrement": 2, "PayloadTypeIncrement": 50, "SSRCIncrement": 0x77777777,
    "DestinationMacAddressIncrement": bytes((0, 0, 0, 0, 0, 0x91)),
    "SourceMacAddressIncrement": bytes((0x80, 0, 0, 0, 0, 1)), "EProtocolIncrement": 1,
    "TrafficClassIncrement": 0x33, "FlowLabelIncrement": 0x75555, "NextHeaderIncrement": 100,
    "HopLimitIncrement": 100, "SourceIPv6AddressIncrement": bytes(13) + b"\x03\xff\xff",
    "DestinationIPv6AddressIncrement": b"\x00" * 7 + b"\x01" + b"\xff" * 8,
    "VLANIdentifierIncrement": 0xFFF,
}
REPLICATION = {
    "one more": (TYPICAL, {"ReplicationCount": 1, "DestinationIP": bytes((255, 255, 255, 255)),
                           "DestinationIPIncrement": bytes((0, 0, 0, 1))}),
    "every IPv4 field": (TYPICAL, {"ReplicationCount": 3, **INCREMENTS, "IPProtocolIncrement": 0x1F0}),
    "every IPv4 field, tagged": (TYPICAL, {"ReplicationCount": 3, **INCREMENTS, **TAGGED}),
    "every IPv6 field": (TYPICAL_IPV6, {"ReplicationCount": 3, **INCREMENTS}),
    "every IPv6 field, tagged, UDP": (TYPICAL_IPV6, {"ReplicationCount": 3, **INCREMENTS, **TAGGED,
                                                     "ProtocolMode": UDP}),
    "wide values in the first copy": (TYPICAL, {"ReplicationCount": 2, "PayloadType": 0xFF, "VID": 0x1FFF,
                                                "VLANEnabled": 1, "TPID": 0x18100, "TTL": 0x1FF}),
    "flags beyond 1, which are off": (TYPICAL, BEYOND_1),
    "flags beyond 1 in every copy": (TYPICAL, {**BEYOND_1, "ReplicationCount": 1}),
    "numbers that wrap": (TYPICAL, {"ReplicationCount": 1, "SequenceNumber": 65534,
                                    "Identification": 65535}),
    "numbers from 0": (TYPICAL, {"ReplicationCount": 1, "SequenceNumber": 0, "Identification": 0}),
    "router alert kept": (TYPICAL, {"ReplicationCount": 1, "IPProtocol": 2, "IPProtocolIncrement": 15}),
    "batches across datagrams": (TYPICAL, {"ReplicationCount": 3, "IPBitRate": 30.0,
                                           "DestinationPortIncrement": 2}),
    "many": (TYPICAL, {"ReplicationCount": 99, "IPBitRate": 5.0, "TSPacketCount": 1,
                       "DestinationIPIncrement": bytes((0, 0, 0, 1))}),
}


class Frames(WireCase):
    def test_reference_checksum(self):
        self.assertEqual(ones_complement_sum(bytes.fromhex("0001f203f4f5f6f7")), 0xDDF2)  # RFC 1071, 3

    def test_every_combination_of_layers_and_cuts(self):
        families = {IPV4: TYPICAL, IPV6: TYPICAL_IPV6}
        for family, protocol, tag in itertools.product((IPV4, IPV6), (UDP, RTP), ({}, TAGGED)):
            base = {**families[family], "ProtocolMode": protocol, **tag}
            for name, cut in CUTS.items():
                settings = {**base, **{key: value(Model(base).headers) if callable(value) else value
                                       for key, value in cut.items()}}
                with self.subTest(cut=name, ipv6=family, rtp=protocol, tagged=bool(tag)):
                    self.check_playout(settings, datagrams(Model(settings), 5))

    def test_fields(self):
        for name, (base, changes) in FIELDS.items():
            settings = {**base, **changes}
            with self.subTest(name):
                self.check_playout(settings, datagrams(Model(settings), 5))

    def test_timing_settings_change_no_byte(self):
        for name, changes in TIMINGS.items():
            settings = {**TYPICAL, **changes}
            with self.subTest(name):
                self.check_playout(settings, datagrams(Model(settings), 23))

    def test_replication(self):
        for name, (base, changes) in REPLICATION.items():
            settings = {**base, **changes}
            with self.subTest(name):
                self.check_playout(settings, datagrams(Model(settings), 7))

    def test_checksum_that_comes_out_as_zero_is_sent_as_all_ones(self):
        settings = {**TYPICAL, "ProtocolMode": UDP}
        model = Model(settings)
        data = bytearray(datagrams(model, 1, tail=0))
        data[0:2] = bytes(2)
        checksum = struct.unpack_from(">H", model.play(bytes(data))[0][0], 40)[0]
        data[0:2] = struct.pack(">H", checksum)  # completes the sum to all ones
        self.assertEqual(model.play(bytes(data))[0][0][40:42], b"\xff\xff")
        self.check_playout(settings, bytes(data))

    def test_random_start_values(self):
        for replication in (0, 2):
            settings = {**TYPICAL, "ReplicationCount": replication}
            data = datagrams(Model(settings), 3)
            drawn = {**settings, "RandomSSRC": 1, "RandomSequenceNumber": 1}
            seen = set()
            for _ in range(3):
                outcome = self.bed.run(play, drawn, data)
                sequence, ssrc = struct.unpack_from(">H4xI", outcome.frames[0], 44)
                # A replicated stream counts on before its first datagram.
                self.assertLessEqual(sequence - (replication > 0), 32767)
                self.assertLessEqual(ssrc, 32767)
                seen.add((sequence, ssrc))
                self.assert_frames(outcome, Model({**settings, "SequenceNumber": sequence,
                                                   "SSRC": ssrc}).play(data)[0])
            self.assertGreater(len(seen), 1, "three starts drew the same values")

    def test_empty_playouts(self):
        """No data, or a payload of exactly 0 bytes: complete, without a frame."""
        headers = Model(TYPICAL).headers
        nothing = {**TYPICAL, "TSPacketSize": 0, "PacketSizeMode": 0, "IPPacketSize": headers}
        for name, settings, data in (("no data", TYPICAL, b""), ("no payload", nothing, b""),
                                     ("other size mode", {**TYPICAL, "PacketSizeMode": 2}, b"")):
            with self.subTest(name):
                outcome = self.bed.run(play, settings, data)
                self.assertEqual(outcome.frames, [])
                self.assertEqual(set(outcome.value.values()), {0})


if __name__ == "__main__":
    unittest.main()
