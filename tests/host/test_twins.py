# SPDX-License-Identifier: MIT
"""The same RTP on two paths: what leaves each of two adapters, and what ipplay measure makes of it."""
import json
import os
import struct
import subprocess
import sys
import unittest

from playbed import HERE, IPPLAY, SAMPLE, PlayCase

sys.path.insert(0, os.path.join(HERE, "..", "measure"))

from frames import write_pcap  # noqa: E402
from testbed import Capture  # noqa: E402

FIRST, SECOND = "rtp://239.1.1.1:5004", "rtp://239.1.2.1:5004"
RTP_AT = 42
MP2T = 33  # RTP payload type (RFC 3551)
LONG = ("--loop", "15", "--restamp", "--speed", "10")  # three thousand datagrams


class Twins(PlayCase):
    def setUp(self):
        """A second veth pair beside that of the bed."""
        super().setUp()
        near, far = self.bed.near, self.bed.far
        if not hasattr(Twins, "second"):
            near.run("ip", "link", "add", "near2", "type", "veth", "peer", "name", "far2", "netns", far.path)
            far.run("sh", "-c", "echo 1 > /proc/sys/net/ipv6/conf/far2/disable_ipv6; ip link set far2 up")
            near.run("sh", "-c", """
                echo 1 > /proc/sys/net/ipv6/conf/near2/disable_ipv6
                ip link set near2 up; ip address add 10.78.0.1/24 dev near2; ip route add 239.1.2.0/24 dev near2""")
            Twins.second = Capture(far.packet_socket("far2"))

    @classmethod
    def tearDownClass(cls):
        cls.second.socket.close()
        super().tearDownClass()

    def play_twins(self, *options):
        """The stream's RTP by number with its time of arrival, of each path; the summary; all frames."""
        self.second.begin()
        played = self.play(SAMPLE, "--to", FIRST, "--twin", SECOND, "--json", *options)
        self.second.drain()
        self.assertEqual(self.second.dropped(), 0)
        frames = [[(round(at * 1e9) if isinstance(at, float) else at, frame) for at, frame in arrivals]
                  for arrivals in (played.arrivals, self.second.frames)]
        # FEC counts in numbers of its own, which may be the same.
        paths = [{struct.unpack_from(">H", frame, RTP_AT + 2)[0]: (at, frame[RTP_AT:]) for at, frame in arrivals
                  if frame[RTP_AT + 1] & 0x7F == MP2T} for arrivals in frames]
        return paths, json.loads(played.output.splitlines()[-1]), sorted(frames[0] + frames[1])

    def measure(self, frames):
        path = self.path("twins.pcap")
        write_pcap(path, frames)
        output = subprocess.run([IPPLAY, "measure", path, "--json"], stdout=subprocess.PIPE, check=True).stdout
        twins, = json.loads(output)["twins"]
        return twins

    def test_loss_of_both_is_as_computed(self):
        paths, summary, frames = self.play_twins(*LONG, "--twin-skew", "50ms", "--lose", "1/100", "--twin-lose", "1/100",
                                                 "--random", "--seed", "18", "--sequence", "60000")
        both = paths[0].keys() & paths[1].keys()
        self.assertEqual({n: paths[0][n][1] for n in both}, {n: paths[1][n][1] for n in both})
        sent = {(60000 + i) & 0xFFFF for i in range(summary["datagrams"])}
        lost = [sent - path.keys() for path in paths]
        self.assertEqual([len(numbers) for numbers in lost],
                         [summary["ordered"]["lost"], summary["twin"]["ordered"]["lost"]])
        self.assertNotEqual(*lost)
        twins = self.measure(frames)
        begin = min(at for at, _ in paths[1].values())  # from when on both are there
        skews = [paths[1][n][0] - paths[0][n][0] for n in both if paths[0][n][0] > begin]
        edges = {60000, (60000 + summary["datagrams"] - 1) & 0xFFFF} & (lost[0] | lost[1])
        self.assertEqual(edges, set(), "with this seed the first and the last one came on both paths")
        self.assertEqual((twins["first_lost"], twins["second_lost"], twins["lost_together"], twins["different"]),
                         (len(lost[0]), len(lost[1]), len(lost[0] & lost[1]), 0))
        self.assertEqual((twins["skew_ns"]["min"], twins["skew_ns"]["max"]), (min(skews), max(skews)))
        self.assertAlmostEqual(twins["skew_ns"]["mean"], sum(skews) / len(skews), delta=1000)

    def test_each_path_has_its_own_faults(self):
        """The payload and the RTP header stay the same, whatever each path does to their times."""
        for options, check in (
                (("--twin-jitter", "gaussian:50%"), lambda a, b: len(a) == len(b) == 203),
                (("--jitter", "square:2ms", "--twin-delay", "1/20:3"), lambda a, b: len(a) == 203 and len(b) >= 202),
                (("--twin-skew", "450ms", "--at", "300ms", "twin-break:500ms"),
                 lambda a, b: len(a) == 203 and 95 <= 203 - len(b) <= 105),
                (("--at", "500ms", "break:100ms", "--at", "1s", "pause:200ms", "--fec", "5x4"),
                 lambda a, b: 15 <= 203 - len(a) <= 25 and len(b) == 203)):
            with self.subTest(options):
                paths, summary, _ = self.play_twins("--speed", "3", *options)
                paths = [{n: rtp for n, (_, rtp) in path.items()} for path in paths]
                both = paths[0].keys() & paths[1].keys()
                self.assertEqual({n: paths[0][n] for n in both}, {n: paths[1][n] for n in both})
                self.assertTrue(check(*paths), [len(path) for path in paths])
                self.assertEqual(summary["outcome"], "Played")

    def test_numbers_of_a_seed(self):
        """The same seed makes the same twins."""
        paths = [self.play_twins("--speed", "10", "--seed", "7", "--random", "--twin-lose", "1/10")[0] for _ in range(2)]
        self.assertEqual([set(path) for path in paths[0]], [set(path) for path in paths[1]])


if __name__ == "__main__":
    unittest.main()
