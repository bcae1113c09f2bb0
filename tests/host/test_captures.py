# SPDX-License-Identifier: MIT
"""Captures as inputs: the stream of one flow is played, judged by the payloads that were captured."""
import os
import subprocess
import sys
import unittest
from decimal import Decimal

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

    @staticmethod
    def arrivals(path):
        """Of each RTP packet, by tshark, since the first one: time in ns, number, and the payload."""
        text = subprocess.run(("tshark", "-n", "-r", path, "-d", "udp.port==5004,rtp", "-T", "fields", "-e", "frame.time_epoch",
                               "-e", "rtp.seq", "-e", "rtp.payload"), check=True, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL).stdout
        rows = [(int(Decimal(time) * 10**9), int(number), payload) for time, number, payload in map(str.split, text.splitlines())]
        return [(time - rows[0][0], (number - rows[0][1]) % 65536, payload) for time, number, payload in rows]

    def test_datagrams_leave_when_they_came(self):
        capture = self.make("uneven.pcap", Playout(datagrams=400, jitter_ns=990_000, lose={70, 71, 72, 200}, delay={300: 1},
                                                   first_sequence=65500, ts_per_datagram=5))
        came = sorted(self.arrivals(capture), key=lambda each: each[1])
        played = self.path("played.pcapng")
        for options, speed, is_numbered in (((), 1, False), (("--keep-losses",), 1, True),
                                            (("--keep-losses", "--speed", "0.5"), 0.5, True)):
            with self.subTest(options=options):
                self.play(capture, "--to", "rtp://239.7.7.7:5004", "--into", played, "--timing", "capture", *options)
                left = self.arrivals(played)
                self.assertEqual([each[2] for each in left], [each[2] for each in came])
                numbers = [each[1] for each in came] if is_numbered else list(range(396))
                self.assertEqual([each[1] for each in left], numbers)
                # What came late leaves with what follows it.
                for one, other in zip(left, came):
                    if other[1] != 300:
                        self.assertLessEqual(abs(one[0] - other[0] / speed), 1, other[1])
                at = {each[1]: each[0] for each in came}
                self.assertEqual(round(left[numbers.index(300) if is_numbered else 296][0] * speed), at[301])

    def test_captures_that_holes_do_not_fit(self):
        for name, playout, options, words in (
                ("plain.pcap", Playout(datagrams=50, rtp=False), (), "needs RTP"),
                ("seven.pcap", Playout(datagrams=50), ("--ts-per-datagram", "6"), "of 7 packets"),
                ("seven.pcap", Playout(datagrams=50), ("--loop", "2"), "excludes --from, --duration and --loop")):
            path = self.make(name, playout)
            refused = self.play(path, "--to", "rtp://239.7.7.7:5004", "--timing", "capture", "--keep-losses", *options, status=USAGE)
            self.assertIn(words, refused.errors)


if __name__ == "__main__":
    unittest.main()
