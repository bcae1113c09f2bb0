# SPDX-License-Identifier: MIT
"""What an independent dissector makes of the frames, clean ones and damaged ones."""
import os
import shutil
import subprocess
import tempfile
import unittest
from collections import Counter

from test_errors import checksum
from testbed import write_pcap
from wire_case import TAGGED, TYPICAL, TYPICAL_IPV6, Model, WireCase, play

BAD, GOOD = "0", "1"
FIELDS = ("frame.len", "ip.checksum.status", "udp.checksum.status", "rtp.seq", "rtp.timestamp", "rtp.ssrc",
          "udp.length", "vlan.id", "ip.len", "ipv6.plen", "mp2t.header", "_ws.malformed")


def dissect(arrivals):
    """One dictionary of dissected fields per frame."""
    if not shutil.which("tshark"):
        raise FileNotFoundError("tshark is missing: install it (apt-get install tshark)")
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "frames.pcap")
        write_pcap(path, arrivals)
        command = ["tshark", "-r", path, "-T", "fields", "-o", "ip.check_checksum:TRUE",
                   "-o", "udp.check_checksum:TRUE", "-d", "udp.port==5004,rtp", "-E", "occurrence=f"]
        text = subprocess.run(command + [part for field in FIELDS for part in ("-e", field)],
                              check=True, text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    return [dict(zip(FIELDS, line.split("\t"))) for line in text.splitlines()]


def transport_stream(model, count):
    """Null packets: enough for a dissector to see a transport stream."""
    packet = bytes.fromhex("471fff10") + b"\xff" * 184
    return packet * (model.payload_size // 188 * count)


class Dissector(WireCase):
    def judge(self, settings, count=20):
        model = Model(settings)
        outcome = self.bed.run(play, settings, transport_stream(model, count))
        rows = dissect(outcome.arrivals)
        self.assertEqual(len(rows), len(outcome.frames))
        return rows, outcome.value, model

    def test_clean(self):
        for base in (TYPICAL, TYPICAL_IPV6, {**TYPICAL, **TAGGED}, {**TYPICAL_IPV6, **TAGGED},
                     {**TYPICAL, "ReplicationCount": 2, "DestinationIPIncrement": bytes((0, 0, 1, 1))}):
            model = Model(base)
            with self.subTest(ipv6=not model.ipv4, tagged=model.vlan, copies=model.copies):
                rows, statistics, _ = self.judge(base)
                self.assertEqual(len(rows), 20 * model.copies)
                self.assertEqual(statistics["DatagramsSent"], 20)
                common = {"frame.len": str(model.datagram_size), "udp.checksum.status": GOOD,
                          "udp.length": str(8 + 12 + model.payload_size), "_ws.malformed": "",
                          "rtp.ssrc": "0x12345678", "mp2t.header": "0x471fff10",
                          "vlan.id": "100" if model.vlan else "",
                          "ip.checksum.status": GOOD if model.ipv4 else "",
                          "ip.len": str(40 + model.payload_size) if model.ipv4 else "",
                          "ipv6.plen": "" if model.ipv4 else str(20 + model.payload_size)}
                for at, row in enumerate(rows):
                    self.assertEqual(row, {**row, **common}, f"frame {at}")
                    self.assertEqual(int(row["rtp.seq"]), 7 + at // model.copies)

    def test_clock(self):
        rows, _, _ = self.judge({**TYPICAL, "IPPacketSize": 1316, "IPBitRate": 10.0}, 8)
        self.assertEqual([int(row["rtp.timestamp"]) for row in rows],
                         [0, 94, 189, 284, 379, 473, 568, 663])  # 94.752 ticks each

    def test_damaged(self):
        for name, settings, field, count in (
                ("IPv4 checksums", {**TYPICAL, **checksum(0, 2, 5)}, "ip.checksum.status", 8),
                ("UDP checksums", {**TYPICAL, **checksum(1, 1, 4)}, "udp.checksum.status", 5),
                ("UDP checksums over IPv6", {**TYPICAL_IPV6, **checksum(1, 3, 10)}, "udp.checksum.status", 6),
                ("UDP checksums in all copies", {**TYPICAL, **checksum(1, 1, 4), "ReplicationCount": 1},
                 "udp.checksum.status", 10)):
            with self.subTest(name):
                rows, _, _ = self.judge(settings)
                bad = {field: Counter(row[field] for row in rows)[BAD]
                       for field in ("ip.checksum.status", "udp.checksum.status")}
                self.assertEqual(bad, {"ip.checksum.status": 0, "udp.checksum.status": 0, field: count})


if __name__ == "__main__":
    unittest.main()
