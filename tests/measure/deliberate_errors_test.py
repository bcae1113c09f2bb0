# SPDX-License-Identifier: MIT
"""ipplay measure finds every error that ipplay is ordered to make, to the last one.

Both run on a veth pair between two namespaces. What there is to find follows from the order alone.
"""

import json
import os
import subprocess
import sys
import unittest

from frames import Playout, found_in

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "host"))

from playbed import IPPLAY, SAMPLE, PlayBed  # noqa: E402

DATAGRAMS = 709  # the sample, two packets in each
# Each N/RANGE hits the first N of every RANGE; ranges without a common factor meet in all ways.
LOSSES = ((0, 1), (2, 37), (5, 101), (1, 7))
DELAYS = ((0, 1, 0), (1, 23, 3), (2, 59, 1), (1, 97, 40))
CHECKSUMS = ((0, 1), (3, 41), (1, 13))


def hits(count, span):
    return {i for i in range(DATAGRAMS) if i % span < count}


def configurations():
    """24 of them: each loss with each delay once, and the rest at strides that mix it with both."""
    for number in range(24):
        loss, delay = LOSSES[number % 4], DELAYS[(number // 4 + number) % 4]
        checksum, kind = CHECKSUMS[number % 3], ("ip", "udp")[number // 2 % 2]
        version, copies = (4, 6, 4)[number % 3], (1, 3)[number // 3 % 2]
        vlan = (None, 100)[number // 5 % 2]
        if kind == "ip" and version == 6:
            kind = "udp"  # IPv6 has no header checksum
        options = ["--copies", copies, "--step", "dst-port=2"] if copies > 1 else []
        options += ["--vlan", vlan] if vlan else []
        options += ["--lose", "%d/%d" % loss] if loss[0] else []
        options += ["--delay", "%d/%d:%d" % delay] if delay[0] else []
        options += [f"--bad-{kind}-checksum", "%d/%d" % checksum] if checksum[0] else []
        bad = hits(*checksum)
        expected = Playout(
            ipv6=version == 6, copies=copies, datagrams=DATAGRAMS, lose=hits(*loss),
            delay={i: delay[2] for i in hits(*delay[:2])},
            bad_ip=bad if kind == "ip" else set(), bad_udp=bad if kind == "udp" else set())
        target = "rtp://239.1.1.1:5004" if version == 4 else "rtp://[ff3e::8000:1]:5004"
        yield number, [target, *map(str, options)], vlan, expected


class DeliberateErrors(unittest.TestCase):
    def test_none_is_missed_and_none_invented(self):
        bed = PlayBed()
        self.addCleanup(bed.close)
        for number, order, vlan, expected in configurations():
            with self.subTest(number=number, order=order):
                result = self.measure(bed, order, expected.truth().frames * expected.copies)
                self.assertEqual(result["capture"]["dropped_by_kernel"], 0)
                self.assertEqual(len(result["streams"]), expected.copies)
                for stream in result["streams"]:
                    self.assertEqual(found_in(stream), vars(expected.truth()))
                    self.assertEqual(stream.get("vlan"), vlan and str(vlan))

    def measure(self, bed, order, frames):
        receiver = subprocess.Popen(
            [IPPLAY, "measure", bed.FAR, "--json", "--direction", "in", "--buffer", "16",
             "--count", str(frames), "--silence", "2s", "--wait", "20s"],
            preexec_fn=bed.far.enter, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.assertEqual(receiver.stderr.readline(), f"Measuring on {bed.FAR}\n")
        sender = bed.start("play", SAMPLE, "--to", *order, "--ts-per-datagram", "2", "--speed", "28",
                           "--sequence", "65000", "--ssrc", "7", "--quiet")
        _, complaints = sender.communicate()
        self.assertEqual(sender.returncode, 0, complaints)
        output, complaints = receiver.communicate()
        self.assertEqual(receiver.returncode, 0, complaints)
        return json.loads(output)


if __name__ == "__main__":
    unittest.main()
