# SPDX-License-Identifier: MIT
"""What the wire tests share: a test bed per class, a typical playout, comparison of frames."""
import os
import random
import unittest

from model import IPV4, IPV6, RTP, UDP, Model  # noqa: F401 (for the tests)
from testbed import Testbed, write_pcap

TYPICAL = {
    "IPBitRate": 50.0, "PacketSizeMode": 1, "TSPacketSize": 188, "TSPacketCount": 7, "IPPacketSize": 1370,
    "ProtocolMode": RTP, "IPLayerVersion": IPV4,
    "DestinationMacAddress": bytes.fromhex("02aabbccdd02"),
    "SourceMacAddress": bytes.fromhex("02aabbccdd01"), "EProtocol": 0x0800,
    "IPVersion": 4, "TOS": 0x28, "TTL": 64, "Identification": 0x1234, "IPProtocol": 17,
    "SourceIP": bytes((10, 77, 0, 1)), "DestinationIP": bytes((239, 1, 2, 3)),
    "SourcePort": 40000, "DestinationPort": 5004,
    "RTPVersion": 2, "PayloadType": 33, "SequenceNumber": 7, "SSRC": 0x12345678,
}
TYPICAL_IPV6 = {
    **TYPICAL, "IPLayerVersion": IPV6, "EProtocol": 0x86DD, "IPv6Version": 6, "TrafficClass": 0xAB,
    "FlowLabel": 0x12345, "NextHeader": 17, "HopLimit": 9,
    "SourceIPv6": bytes.fromhex("fd770000000000000000000000000001"),
    "DestinationIPv6": bytes.fromhex("ff05000000000000a1b2c3d4e5010203"),
}
TAGGED = {"VLANEnabled": 1, "TPID": 0x8100, "VLANPriorityLevel": 5, "CFI": 1, "VID": 100}


def stream(length, seed=1):
    """Bytes that tell one place from another; a length that the 4-byte units of a write can carry."""
    return random.Random(seed).randbytes(length - length % 4)


def datagrams(model, count, tail=0.5):
    """A stream for count whole datagrams and a shorter one."""
    return stream(max(8, int(model.payload_size * (count + tail))))


def play(library, settings, data):
    library.initialise(Testbed.NEAR)
    library.configure(settings)
    return library.play(data)


class WireCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.bed = Testbed()
        cls.addClassCleanup(cls.bed.close)

    def check_playout(self, settings, data, body=play, requests=None):
        """Plays data and compares every frame on the wire and every statistic with the model."""
        expected, statistics = Model(settings).play(data, requests)
        outcome = self.bed.run(body, settings, data)
        self.assert_frames(outcome, expected)
        self.assertEqual(outcome.value, statistics)
        return outcome

    def assert_frames(self, outcome, expected):
        frames = outcome.frames
        if frames == expected:
            return
        kept = os.path.join(os.environ.get("IPPLAYOUT_WIRE_CAPTURES", "."), self.id() + ".pcap")
        write_pcap(kept, outcome.arrivals)
        self.fail(f"{describe_difference(frames, expected)}; the capture is kept in {kept}")


def describe_difference(frames, expected):
    at = next((i for i, pair in enumerate(zip(frames, expected)) if pair[0] != pair[1]),
              min(len(frames), len(expected)))
    text = f"{len(frames)} frames arrived, {len(expected)} expected"
    if at < min(len(frames), len(expected)):
        got, want = frames[at], expected[at]
        byte = next((i for i, pair in enumerate(zip(got, want)) if pair[0] != pair[1]),
                    min(len(got), len(want)))
        text += (f"; frame {at} differs from byte {byte} on ({len(got)} bytes, {len(want)} expected)"
                 f"\n  arrived  {got[:80].hex(' ', 4)}\n  expected {want[:80].hex(' ', 4)}")
        if got in expected:
            text += f"\n  the frame expected at position {expected.index(got)} arrived there"
    return text
