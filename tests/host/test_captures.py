# SPDX-License-Identifier: MIT
"""Captures as inputs: the stream of one flow is played, judged by the payloads that were captured."""
import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "measure"))

from frames import Playout, write_pcap  # noqa: E402
from playbed import PlayCase  # noqa: E402

USAGE = 2
TARGET = ("--to", "udp://239.7.7.7:5004", "--speed", "5")


class Captures(PlayCase):
    def make(self, name, *playouts):
        path = self.path(name)
        write_pcap(path, sorted(frame for playout in playouts for frame in playout.capture()))
        return path

    def streams(self):
        """Captures of one flow, and the stream in each."""
        repaired = Playout(datagrams=300, delay={20: 3, 100: 1}, double={50}, lose={70}, first_sequence=65500)
        payloads = repaired.payloads()
        yield self.make("repaired.pcap", repaired), b"".join(payloads[:70] + payloads[71:])
        for name, fields in (("udp", {"rtp": False}), ("vlan6", {"ipv6": True, "vlan": 7})):
            playout = Playout(datagrams=100, **fields)
            yield self.make(f"{name}.pcap", playout), b"".join(playout.payloads())
        path = self.path("whole.pcapng")
        subprocess.run(("editcap", "-F", "pcapng", self.path("udp.pcap"), path), check=True)
        yield path, b"".join(playout.payloads())
        cut = self.path("cut.pcap")
        subprocess.run(("cp", self.path("udp.pcap"), cut), check=True)
        os.truncate(cut, os.path.getsize(cut) - 5)
        yield cut, b"".join(playout.payloads()[:-1])

    def test_stream_of_the_only_flow_is_played(self):
        for path, stream in self.streams():
            for rounds in (1, 2):
                with self.subTest(path, rounds=rounds):
                    played = self.play(path, *TARGET, "--loop", rounds)
                    self.assertEqual(played.payload(42), stream * rounds)
        self.assertIn("read up to where it is damaged", played.errors)

    def test_faults_are_counted(self):
        path, _ = next(self.streams())
        errors = self.play(path, *TARGET).errors
        for note in ("1 RTP packet is missing", "2 RTP packets came late and were put in order",
                     "1 RTP packet came twice"):
            self.assertEqual(errors.count(f"note: INPUT: {note}"), 1, errors)

    def test_one_of_several_flows_is_chosen(self):
        several = Playout(datagrams=100, copies=2, vlan=7)
        path = self.make("several.pcap", several, Playout(datagrams=40, ipv6=True, rtp=False, seed=2))
        refused = self.play(path, *TARGET, status=USAGE)
        for flow in (r"239\.1\.1\.1:5004  RTP  100 packets from 10\.1\.2\.3:5000, VLAN 7",
                     r"239\.1\.1\.2:5006  RTP  100 packets from 10\.1\.2\.3:5000, VLAN 7",
                     r"\[ff3e::8000:1\]:5004  UDP  40 packets from \[fd00::1\]:5000"):
            self.assertRegex(refused.errors, rf"(?m)^  {flow}$")
        for flow, stream in (("239.1.1.2:5006", several), ("10.1.2.3@239.1.1.1:5004", several),
                             ("[fd00::1]@[ff3e::8000:1]:5004", Playout(datagrams=40, seed=2))):
            with self.subTest(flow):
                self.assertEqual(self.play(path, *TARGET, "--flow", flow).payload(42), b"".join(stream.payloads()))
        for flow in ("239.1.1.3:5004", "10.1.2.4@239.1.1.1:5004"):
            self.assertIn("does not hold the flow", self.play(path, *TARGET, "--flow", flow, status=USAGE).errors)


if __name__ == "__main__":
    unittest.main()
